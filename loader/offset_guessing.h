// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "bpf/kernel_layout.h"
#include "util/result.h"

namespace Tesu::Bpf {

// Finds members of kernel structures without type information: makes tasks and files about which
// everything is known and looks for them in kernel memory. Sets them in `layout`, whose pointerSize
// is known. Forks, so this process must have one thread. A failure where members of task_struct are
// not found; those of files, which only the dma-buf programs need, may stay unknown.
Result<> GuessOffsets(TesuKernelLayout* layout);

}  // namespace Tesu::Bpf
