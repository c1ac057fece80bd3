// SPDX-License-Identifier: Apache-2.0
//
// Finds members of struct file and struct inode from files about which everything is known. Pure:
// kernel memory comes in through a function.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "bpf/kernel_layout.h"
#include "loader/task_probe.h"

namespace Tesu::Bpf {

// A file that a process has open, under one descriptor number or several.
struct FileSample {
    std::vector<uint32_t> descriptors;  // ascending
    uint64_t inode = 0;                 // number, as fstat() tells it
};

// Sets the members of file, inode and dma_buf in `layout`, whose pointerSize, taskComm and
// taskSignal are known. `task` are the bytes of the process's task_struct. The array of open files
// is known by which of its entries are equal and which are not, the members by holding for every
// file in one place only. False, with a reason, when something is not found.
bool FindMembersInFiles(const std::vector<uint8_t>& task, const std::vector<FileSample>& files,
                        const ReadKernelMemory& read, TesuKernelLayout* layout, std::string* error);

}  // namespace Tesu::Bpf
