// SPDX-License-Identifier: Apache-2.0
#include "util/time_util.h"

#include <time.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <limits>
#include <string>

namespace Tesu::Bpf {

namespace {

constexpr long long NANOS_PER_SECOND = 1000000000;
constexpr const char* PROC_STAT_PATH = "/proc/stat";
constexpr const char* BOOT_TIME_PREFIX = "btime ";

// Boot time in seconds since the epoch. Written once by the core poll thread before any program is
// attached; a thread that reads it earlier gets 0.
std::atomic<long long> __basetime{0};  // NOLINT(bugprone-reserved-identifier)

timespec ReadClock(clockid_t clock) {
    timespec now{};
    clock_gettime(clock, &now);
    return now;
}

// Seconds since the epoch of a monotonic clock's reading.
unsigned long long EpochSeconds(const timespec& monotonic) {
    return static_cast<unsigned long long>(GetBasetime()) +
           static_cast<unsigned long long>(monotonic.tv_sec);
}

}  // namespace

long long ParseBootTime(std::istream& procStat, long long fallback) {
    std::string line;
    while (std::getline(procStat, line)) {
        if (line.find(BOOT_TIME_PREFIX) != std::string::npos) {
            return std::strtoll(line.c_str() + std::char_traits<char>::length(BOOT_TIME_PREFIX),
                                nullptr, 10);
        }
    }
    return fallback;
}

bool InitBasetime() {
    std::ifstream procStat(PROC_STAT_PATH);
    if (!procStat.is_open()) {
        return false;
    }
    __basetime = ParseBootTime(procStat, __basetime);
    return true;
}

long long GetBasetime() {
    return __basetime.load(std::memory_order_relaxed);
}

unsigned long long NarrowNanoseconds(long long seconds, long nanoseconds) {
    const uint32_t narrow =
        static_cast<uint32_t>(seconds) * static_cast<uint32_t>(NANOS_PER_SECOND) +
        static_cast<uint32_t>(nanoseconds);
    return static_cast<unsigned long long>(static_cast<int64_t>(static_cast<int32_t>(narrow)));
}

unsigned long long GetSystemBootNanosencondsTime() {
    const timespec now = ReadClock(CLOCK_MONOTONIC);
    return NarrowNanoseconds(now.tv_sec, now.tv_nsec);
}

unsigned long long GetSystemNanosencondsTime() {
    const timespec now = ReadClock(CLOCK_MONOTONIC);
    return EpochSeconds(now) * NANOS_PER_SECOND + static_cast<unsigned long long>(now.tv_nsec);
}

unsigned long long GetSystemMicrosencondsTime() {
    const timespec now = ReadClock(CLOCK_MONOTONIC);
    return EpochSeconds(now) * 1000000 + static_cast<unsigned long long>(now.tv_nsec) / 1000;
}

unsigned long long GetSystemMillisecondsTime(bool precise) {
    const timespec now = ReadClock(precise ? CLOCK_MONOTONIC : CLOCK_MONOTONIC_COARSE);
    return EpochSeconds(now) * 1000 + static_cast<unsigned long long>(now.tv_nsec) / 1000000;
}

unsigned long long GetSystemSecondsTime() {
    return EpochSeconds(ReadClock(CLOCK_MONOTONIC_COARSE));
}

long long SubAbs(long long a, long long b) {
    const unsigned long long difference =
        a > b ? static_cast<unsigned long long>(a) - static_cast<unsigned long long>(b)
              : static_cast<unsigned long long>(b) - static_cast<unsigned long long>(a);
    constexpr auto LARGEST = static_cast<unsigned long long>(std::numeric_limits<long long>::max());
    return static_cast<long long>(difference > LARGEST ? LARGEST : difference);
}

}  // namespace Tesu::Bpf
