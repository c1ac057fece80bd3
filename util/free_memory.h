// SPDX-License-Identifier: Apache-2.0
//
// Gives the system back what the C library's allocator keeps of freed memory. Takes milliseconds
// where that is much. Any thread.
#pragma once

#include <malloc.h>

namespace Tesu::Bpf {

inline void ReturnFreeMemory() {
#if defined(__BIONIC__)
    mallopt(M_PURGE, 0);
#else
    malloc_trim(0);
#endif
}

}  // namespace Tesu::Bpf
