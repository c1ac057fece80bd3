// SPDX-License-Identifier: Apache-2.0
//
// Reads kernel memory through an eBPF program that the caller runs, for kernels without type
// information. Usable after fork() in the child too; one use at a time.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "bpf/task_peek.h"
#include "loader/load_object.h"

namespace Tesu::Bpf {

inline constexpr const char* TASK_PEEK_OBJECT = "TaskPeek.bpf.o";

class KernelPeek {
  public:
    // Null, with a reason, when the program cannot be loaded.
    static std::unique_ptr<KernelPeek> Open(const std::string& objectPath, LibbpfLog* log,
                                            std::string* error);

    // Runs the program; what it read waits in the kernel for bytes(). False: errno says why.
    bool run(TaskPeekRequest* request) const;
    // What the last run() of this process or one of its children read.
    std::vector<uint8_t> bytes(const TaskPeekRequest& finished) const;

    // At most `size` bytes from `address`; as many as could be read, in whole chunks.
    std::vector<uint8_t> read(uint64_t address, uint32_t size) const;

  private:
    explicit KernelPeek(BpfObject loaded);

    BpfObject object;
    int programFd;  // owned by the object, as is mapFd
    int mapFd;
};

}  // namespace Tesu::Bpf
