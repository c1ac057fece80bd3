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
#include "loader/bpf_objects.h"
#include "util/result.h"

namespace Tesu::Bpf {

using BpfObject = std::unique_ptr<bpf_object, decltype(&bpf_object__close)>;

// Program name -> why it is not loaded.
using LeftOutPrograms = std::map<std::string, std::string>;

// Opens an object without loading it.
Result<BpfObject> OpenObject(const ObjectImage& image);

// Loads the object with `layout` as its constant data and, when given, a ring buffer of
// `ringBytes`. Programs in `leftOut` are left out; those that the kernel refuses are added to it,
// also where the whole fails, which it does when a map cannot be made or no program is left.
Result<BpfObject> LoadObject(const ObjectImage& image, const TesuKernelLayout& layout,
                             std::optional<uint32_t> ringBytes, LeftOutPrograms* leftOut);

}  // namespace Tesu::Bpf
