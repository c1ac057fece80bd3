// SPDX-License-Identifier: Apache-2.0
//
// The eBPF objects, which are part of the loader.
#pragma once

#include <cstddef>

namespace Tesu::Bpf {

// An object file in memory.
struct ObjectImage {
    const char* name;                    // as in the names of pins
    const void* (*bytes)(size_t* size);  // they live as long as the program
};

extern const ObjectImage CORE_OBJECT;
extern const ObjectImage GPL_OBJECT;
// Not to be pinned: the loader's own, see loader/kernel_memory.h.
extern const ObjectImage KERNEL_MEMORY_OBJECT;

}  // namespace Tesu::Bpf
