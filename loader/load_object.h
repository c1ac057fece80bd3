// SPDX-License-Identifier: Apache-2.0
//
// Loads one eBPF object into the kernel, as much of it as the kernel takes.
#pragma once

#include <bpf/libbpf.h>

#include <map>
#include <memory>
#include <optional>
#include <string>

#include "bpf/kernel_layout.h"
#include "loader/libbpf_log.h"

namespace Tesu::Bpf {

using BpfObject = std::unique_ptr<bpf_object, decltype(&bpf_object__close)>;

// Program name -> why it is not loaded.
using LeftOutPrograms = std::map<std::string, std::string>;

struct LoadedObject {
    BpfObject object{nullptr, &bpf_object__close};
    LeftOutPrograms leftOut;
};

// Opens an object file without loading it; null, with a reason, on failure.
BpfObject OpenObject(const std::string& path, LibbpfLog* log, std::string* error);

// Loads the object with `layout` as its constant data and, when given, a ring buffer of
// `ringBytes`. Programs in `unusable` are left out from the start; a program that the kernel
// refuses is left out and the rest tried again. With layout.hasAtomics the programs use atomics if
// the kernel takes them, which is known only when it is asked; without, they never do.
//
// False, with a reason, when a map cannot be made or no program is left.
bool LoadObject(const std::string& path, const TesuKernelLayout& layout,
                const LeftOutPrograms& unusable, std::optional<uint32_t> ringBytes, LibbpfLog* log,
                LoadedObject* loaded, std::string* error);

}  // namespace Tesu::Bpf
