// SPDX-License-Identifier: Apache-2.0
//
// The eBPF objects, which are part of the loader.
#pragma once

#include <cstddef>

namespace Tesu::Bpf {

// An object file in memory that lives as long as the program.
struct ObjectImage {
    const char* name;  // as in the names of pins
    const void* bytes;
    size_t size;
};

ObjectImage CoreObject();
ObjectImage GplObject();
// Not to be pinned: the loader's own, see loader/kernel_memory.h.
ObjectImage KernelMemoryObject();

}  // namespace Tesu::Bpf
