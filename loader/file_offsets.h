// SPDX-License-Identifier: Apache-2.0
//
// Guesses offsets in struct file and struct inode from files about which everything is known. Pure:
// kernel memory comes in through a function.
#pragma once

#include <cstdint>
#include <vector>

#include "bpf/kernel_layout.h"
#include "loader/task_offsets.h"
#include "util/result.h"

namespace Tesu::Bpf {

// A file that a process has open, under one descriptor number or several.
struct FileSample {
    std::vector<uint32_t> descriptors;  // ascending
    uint64_t inode = 0;                 // number, as in fstat()
};

// Sets the members of file, inode and dma_buf in `layout`, whose pointerSize, taskComm and
// taskSignal are known. `task` are the bytes of the process's task_struct. The array of open files
// is recognised by which of its entries are equal and which are not, the members by holding for
// every file in one place only. A failure where something is not found.
Result<> GuessFileOffsets(const std::vector<uint8_t>& task, const std::vector<FileSample>& files,
                          const ReadKernelMemory& read, TesuKernelLayout* layout);

}  // namespace Tesu::Bpf
