// SPDX-License-Identifier: Apache-2.0
//
// How a ring buffer fares: what its monitor writes down at each reading, and anybody may ask for.
#pragma once

#include <atomic>
#include <cstdint>

namespace Tesu::Bpf {

enum class RingMonitorState : uint8_t {
    NOT_STARTED,
    RUNNING,
    STOPPED,  // by stop()
    FAILED,   // nobody reads the ring any more
};

struct RingStatistics {
    RingMonitorState monitor = RingMonitorState::NOT_STARTED;
    uint64_t size = 0;     // bytes; 0: not opened
    uint64_t taken = 0;    // records read since the service started
    uint64_t lost = 0;     // records since the programs were loaded, as last looked at
    uint64_t fullest = 0;  // most bytes that waited for a reading since the service started
};

// Written by the ring's monitor, read by any thread. The figures are not of one moment.
struct RingAccount {
    std::atomic<RingMonitorState> monitor{RingMonitorState::NOT_STARTED};
    std::atomic<uint64_t> size{0};
    std::atomic<uint64_t> taken{0};
    std::atomic<uint64_t> lost{0};
    std::atomic<uint64_t> fullest{0};

    void noteWaiting(uint64_t bytes) {
        if (bytes > fullest.load(std::memory_order_relaxed)) {
            fullest.store(bytes, std::memory_order_relaxed);
        }
    }

    RingStatistics read() const {
        return {.monitor = monitor.load(std::memory_order_relaxed),
                .size = size.load(std::memory_order_relaxed),
                .taken = taken.load(std::memory_order_relaxed),
                .lost = lost.load(std::memory_order_relaxed),
                .fullest = fullest.load(std::memory_order_relaxed)};
    }
};

}  // namespace Tesu::Bpf
