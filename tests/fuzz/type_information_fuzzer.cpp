// SPDX-License-Identifier: Apache-2.0
//
// The loader, on whatever a kernel may give for its type information.
#include "loader/btf_offsets.h"
#include "tests/fuzz/fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Tesu::Bpf::TesuKernelLayout layout{};
    (void)Tesu::Bpf::ParseBtfOffsets({reinterpret_cast<const char*>(data), size}, &layout);
    return 0;
}
