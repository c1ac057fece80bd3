// SPDX-License-Identifier: Apache-2.0
#include "recording/block.h"

#include <zlib.h>

namespace Tesu::Bpf {

uint32_t BlockChecksum(const BlockHead& head, std::string_view body) {
    const auto bytes = [](const void* data) { return static_cast<const Bytef*>(data); };
    uLong sum = crc32(0, bytes(&head), offsetof(BlockHead, checksum));
    // Without bytes, and so perhaps without an address, the function begins anew.
    sum = body.empty() ? sum : crc32(sum, bytes(body.data()), static_cast<uInt>(body.size()));
    return static_cast<uint32_t>(sum);
}

}  // namespace Tesu::Bpf
