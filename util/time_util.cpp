// SPDX-License-Identifier: Apache-2.0
#include "util/time_util.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <limits>
#include <string>
#include <string_view>

#include "util/monotonic_clock.h"

namespace Tesu::Bpf {

namespace {

constexpr const char* PROC_STAT_PATH = "/proc/stat";
constexpr std::string_view BOOT_TIME_PREFIX = "btime ";

// Boot time in seconds since the epoch. Written once by the core poll thread before any program is
// attached; a thread that reads it earlier gets 0.
std::atomic<long long> __basetime{0};  // NOLINT(bugprone-reserved-identifier)

// Since the epoch, in units of so many nanoseconds, by a monotonic clock.
unsigned long long SinceEpoch(clockid_t clock, int64_t unit) {
    return static_cast<unsigned long long>(GetBasetime()) *
               static_cast<unsigned long long>(NANOSECONDS_PER_SECOND / unit) +
           static_cast<unsigned long long>(ClockNanoseconds(clock) / unit);
}

}  // namespace

bool InitBasetime() {
    std::ifstream procStat(PROC_STAT_PATH);
    if (!procStat.is_open()) {
        return false;
    }
    std::string line;
    while (std::getline(procStat, line)) {
        if (line.find(BOOT_TIME_PREFIX) != std::string::npos) {
            __basetime = std::strtoll(line.c_str() + BOOT_TIME_PREFIX.size(), nullptr, 10);
            break;
        }
    }
    return true;
}

long long GetBasetime() {
    return __basetime.load(std::memory_order_relaxed);
}

unsigned long long GetSystemBootNanosencondsTime() {
    return static_cast<unsigned long long>(
        static_cast<int64_t>(static_cast<int32_t>(MonotonicNanoseconds())));
}

unsigned long long GetSystemNanosencondsTime() {
    return SinceEpoch(CLOCK_MONOTONIC, 1);
}

unsigned long long GetSystemMicrosencondsTime() {
    return SinceEpoch(CLOCK_MONOTONIC, 1000);
}

unsigned long long GetSystemMillisecondsTime(bool precise) {
    return SinceEpoch(precise ? CLOCK_MONOTONIC : CLOCK_MONOTONIC_COARSE, 1'000'000);
}

unsigned long long GetSystemSecondsTime() {
    return SinceEpoch(CLOCK_MONOTONIC_COARSE, NANOSECONDS_PER_SECOND);
}

long long SubAbs(long long a, long long b) {
    long long difference = 0;
    const bool isTooLarge = __builtin_sub_overflow(std::max(a, b), std::min(a, b), &difference);
    return isTooLarge ? std::numeric_limits<long long>::max() : difference;
}

}  // namespace Tesu::Bpf
