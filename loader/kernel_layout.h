// SPDX-License-Identifier: Apache-2.0
//
// Puts together what the programs must know of the running kernel: tracepoint fields from the
// tracing file system, structure members from the kernel's type information or, where it has none,
// by offset guessing, function arguments from the machine, atomics from the kernel's answer.
#pragma once

#include <cstdint>
#include <string>

#include "bpf/kernel_layout.h"
#include "loader/btf_offsets.h"
#include "loader/load_object.h"
#include "loader/tracepoint_format.h"

namespace Tesu::Bpf {

// A layout in which nothing is known, and no atomics are used.
TesuKernelLayout UnknownLayout();

// Whether the running kernel takes programs with this atomic operation on 64 bits, BPF_ADD or
// BPF_OR; asked by loading a small one. 32-bit just-in-time compilers have neither, and kernels
// before 5.12 only the addition.
bool HasAtomic(int32_t operation);

struct KernelLayout {
    TesuKernelLayout values = UnknownLayout();
    LeftOutPrograms unusable;   // programs that lack something they need
    std::string memberSource;   // for the user: where structure members are from
    std::string memberProblem;  // empty, or why structure members are missing
};

// Never fails as a whole: what is not found makes the programs that need it unusable. Forks when it
// guesses, so this process must have one thread then.
KernelLayout FindKernelLayout(const std::string& tracefsRoot = TRACEFS_ROOT,
                              const std::string& btfPath = KERNEL_BTF_PATH);

}  // namespace Tesu::Bpf
