// SPDX-License-Identifier: Apache-2.0
//
// Guesses offsets in task_struct and signal_struct from the bytes of tasks about which everything
// is known. Pure: kernel memory comes in through a function.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "bpf/kernel_layout.h"
#include "util/result.h"

namespace Tesu::Bpf {

// A task and what is true of it. It is not the first thread of its process, so that process id and
// thread id differ.
struct TaskSample {
    std::vector<uint8_t> bytes;  // its task_struct, as much as could be read
    int32_t pid = 0;             // process id
    int32_t tid = 0;             // thread id
    int32_t parentPid = 0;       // process id of the parent
    uint32_t flags = 0;          // task_struct.flags, from /proc
    int32_t threads = 0;         // of its process
    std::string comm;            // its own
};

// At most so many bytes from an address of kernel memory; fewer, or none, where there are none.
using ReadKernelMemory = std::function<std::vector<uint8_t>(uint64_t address, uint32_t size)>;

// Sets the members of task_struct and signal_struct in `layout`, whose pointerSize is known. Only
// what holds for every sample counts, and only when one place remains: with samples of different
// names, ids and numbers of threads no chance match survives. A failure where a member is not
// found; taskFlags alone may stay unknown.
Result<> GuessTaskOffsets(const std::vector<TaskSample>& samples, const ReadKernelMemory& read,
                          TesuKernelLayout* layout);

}  // namespace Tesu::Bpf
