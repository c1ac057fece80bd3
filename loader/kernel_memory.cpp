// SPDX-License-Identifier: Apache-2.0
#include "loader/kernel_memory.h"

#include <bpf/bpf.h>

#include <algorithm>
#include <utility>

namespace Tesu::Bpf {

Result<KernelMemory> KernelMemory::Open() {
    LeftOutPrograms refused;
    auto loaded = LoadObject(KERNEL_MEMORY_OBJECT, {}, {}, &refused);
    if (loaded) {
        return KernelMemory(std::move(*loaded));
    }
    return refused.empty()
               ? Failure(loaded.error())
               : Failure("program " + refused.begin()->first + ": " + refused.begin()->second);
}

KernelMemory::KernelMemory(BpfObject loaded)
    : object(std::move(loaded)),
      programFd(
          bpf_program__fd(bpf_object__find_program_by_name(object.get(), "copy_kernel_memory"))),
      requestFd(bpf_object__find_map_fd_by_name(object.get(), "memory_request")),
      mapFd(bpf_object__find_map_fd_by_name(object.get(), "copied_bytes")) {}

bool KernelMemory::run(KernelMemoryRequest* request) const {
    const uint32_t key = 0;
    LIBBPF_OPTS(bpf_test_run_opts, options);
    return bpf_map_update_elem(requestFd, &key, request, BPF_ANY) == 0 &&
           bpf_prog_test_run_opts(programFd, &options) == 0 && options.retval == 0 &&
           bpf_map_lookup_elem(requestFd, &key, request) == 0;
}

std::vector<uint8_t> KernelMemory::read(uint64_t address, uint32_t size) const {
    KernelMemoryRequest request = {};
    request.address = address;
    request.bytes = size;
    std::vector<uint8_t> bytes(KERNEL_MEMORY_BYTES);
    const uint32_t key = 0;
    if (!run(&request) || bpf_map_lookup_elem(mapFd, &key, bytes.data()) != 0) {
        return {};
    }
    bytes.resize(std::min({request.bytes, size, KERNEL_MEMORY_BYTES}));
    return bytes;
}

}  // namespace Tesu::Bpf
