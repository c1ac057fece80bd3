/* SPDX-License-Identifier: Apache-2.0 OR GPL-2.0-only
 *
 * Counters in map values that several CPUs may change at once. On a kernel without atomics a
 * simultaneous change can be lost; counters that must be exact have a slot for each CPU there.
 */
#ifndef TESUBPF_BPF_COUNTERS_H
#define TESUBPF_BPF_COUNTERS_H

#include "bpf/kernel_read.h"

static __always_inline void AddTo(uint64_t* counter, uint64_t amount) {
    if (kernelLayout.hasAtomicAdd) {
        __sync_fetch_and_add(counter, amount);
    } else {
        *counter += amount;
    }
}

/* Subtracts, and stays at 0 where more is taken than there was. Returns what is left. */
static __always_inline uint64_t TakeFrom(uint64_t* counter, uint64_t amount) {
    AddTo(counter, -amount);
    const int64_t left = *(volatile int64_t*)counter;
    if (left < 0) {
        *counter = 0;
        return 0;
    }
    return left;
}

#endif
