// SPDX-License-Identifier: Apache-2.0
//
// The clock of the kernel's records.
#pragma once

#include <time.h>

#include <cstdint>

namespace Tesu::Bpf {

inline constexpr int64_t NANOSECONDS_PER_SECOND = 1'000'000'000;

inline int64_t ClockNanoseconds(clockid_t clock) {
    timespec now{};
    clock_gettime(clock, &now);
    return int64_t{now.tv_sec} * NANOSECONDS_PER_SECOND + now.tv_nsec;
}

inline int64_t MonotonicNanoseconds() {
    return ClockNanoseconds(CLOCK_MONOTONIC);
}

}  // namespace Tesu::Bpf
