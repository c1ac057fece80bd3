// SPDX-License-Identifier: Apache-2.0
//
// Moments of a recording as people write them. Times of day are those of this machine's time zone.
// Any thread.
#pragma once

#include <cstdint>
#include <string>

#include "recording/format.h"
#include "util/result.h"

namespace Tesu::Bpf {

inline constexpr char REPLAY_TIME_HELP[] =
    "+SECONDS, +M:SS or +H:MM:SS from the beginning; H:MM or H:MM:SS of the day; or seconds of the "
    "kernel's clock, as `watch` shows them; or \"end\"";

// Monotonic nanoseconds; begin: of the recording. A time of day is the first such after it.
Result<int64_t> ParseReplayTime(const std::string& text, const ClockReading& begin);

// "12:03:17"
std::string FormatTimeOfDay(int64_t realtime);
// "2026-05-09 12:03:17 +0200"
std::string FormatDate(int64_t realtime);
// "+1:23" or "+1:01:23"
std::string FormatOffset(int64_t nanoseconds);

}  // namespace Tesu::Bpf
