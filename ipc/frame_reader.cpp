// SPDX-License-Identifier: Apache-2.0
#include "ipc/frame_reader.h"

#include "ipc/ipc_package.h"
#include "util/string_util.h"

namespace Tesu::Bpf {

Result<std::optional<Package>> TakePackage(BufferState* buffer) {
    // 64 bits: a hostile length plus its header must not wrap.
    const auto capacity = static_cast<uint64_t>(buffer->capacity);
    const auto available = static_cast<uint64_t>(buffer->length - buffer->cursor);
    if (available < IPC_FRAME_HEADER_SIZE) {
        return std::nullopt;
    }
    const char* const frame = buffer->data + buffer->cursor;
    const uint32_t frameLength = ReadWord(frame);
    const uint64_t whole = uint64_t{IPC_FRAME_HEADER_SIZE} + frameLength;
    if (frameLength < IPC_PACKAGE_HEADER_SIZE || whole > capacity) {
        return Failure(StringPrintf("a frame of %u bytes (possible are %u to %d)", frameLength,
                                    IPC_PACKAGE_HEADER_SIZE,
                                    buffer->capacity - static_cast<int>(IPC_FRAME_HEADER_SIZE)));
    }
    if (available < whole) {
        return std::nullopt;
    }
    const char* const package = frame + IPC_FRAME_HEADER_SIZE;
    const uint32_t bodyLength = ReadWord(package + sizeof(uint32_t));
    if (bodyLength != frameLength - IPC_PACKAGE_HEADER_SIZE) {
        return Failure(
            StringPrintf("a frame of %u bytes with a body of %u", frameLength, bodyLength));
    }
    buffer->cursor += static_cast<int>(whole);
    return Package{ReadWord(package), package + IPC_PACKAGE_HEADER_SIZE, bodyLength};
}

}  // namespace Tesu::Bpf
