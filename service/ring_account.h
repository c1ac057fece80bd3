// SPDX-License-Identifier: Apache-2.0
//
// How a ring buffer fares: what its monitor writes down at each reading, and anybody may ask for.
#pragma once

#include <atomic>
#include <cstdint>

#include "records/status.h"

namespace Tesu::Bpf {

// Written by the ring's monitor, read by any thread. The figures are not of one moment.
struct RingAccount {
    std::atomic<RingMonitorState> monitor{RING_MONITOR_NOT_STARTED};
    std::atomic<uint64_t> size{0};
    std::atomic<uint64_t> taken{0};
    std::atomic<uint64_t> lost{0};
    std::atomic<uint64_t> fullest{0};

    void noteWaiting(uint64_t bytes) {
        if (bytes > fullest.load(std::memory_order_relaxed)) {
            fullest.store(bytes, std::memory_order_relaxed);
        }
    }

    RingStatus read(int ring) const {
        return {.kind = STATUS_RING,
                .ring = ring,
                .monitor = monitor.load(std::memory_order_relaxed),
                .padding = 0,
                .size = size.load(std::memory_order_relaxed),
                .taken = taken.load(std::memory_order_relaxed),
                .lost = lost.load(std::memory_order_relaxed),
                .fullest = fullest.load(std::memory_order_relaxed)};
    }
};

}  // namespace Tesu::Bpf
