// SPDX-License-Identifier: Apache-2.0
//
// Reads kernel memory through an eBPF program that the caller runs, for kernels without type
// information. Usable after fork() in the child too; one use at a time.
#pragma once

#include <cstdint>
#include <vector>

#include "bpf/kernel_memory.h"
#include "loader/load_object.h"
#include "util/result.h"

namespace Tesu::Bpf {

class KernelMemory {
  public:
    // Loads the program.
    static Result<KernelMemory> Open();

    // Runs the program. False: errno says why.
    bool run(KernelMemoryRequest* request) const;
    // At most `size` bytes from `address`; fewer, or none, where there are none.
    std::vector<uint8_t> read(uint64_t address, uint32_t size) const;

  private:
    explicit KernelMemory(BpfObject loaded);

    BpfObject object;
    int programFd;  // owned by the object, as are those of the maps
    int requestFd;
    int mapFd;
};

}  // namespace Tesu::Bpf
