// SPDX-License-Identifier: Apache-2.0
//
// Offsets of structure members from the kernel's own type information.
#pragma once

#include <string>
#include <string_view>

#include "bpf/kernel_layout.h"
#include "util/result.h"

namespace Tesu::Bpf {

inline constexpr const char* KERNEL_BTF_PATH = "/sys/kernel/btf/vmlinux";

// Sets the members of kernel structures in `layout`; what the kernel does not have stays as it is.
// A failure, and `layout` as it was, where the type information cannot be read or is none that a
// kernel could have: a structure that holds itself, a name outside of its strings.
Result<> ParseBtfOffsets(std::string_view btfBytes, TesuKernelLayout* layout);

// The same of a file.
Result<> FindOffsetsInBtf(const std::string& btfPath, TesuKernelLayout* layout);

}  // namespace Tesu::Bpf
