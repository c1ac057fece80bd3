// SPDX-License-Identifier: Apache-2.0
#include "client/replay/replay_time.h"

#include <time.h>

#include <cmath>
#include <cstdlib>
#include <optional>
#include <vector>

#include "util/monotonic_clock.h"
#include "util/string_util.h"

namespace Tesu::Bpf {

namespace {

constexpr double MOST_SECONDS = 1e8;
constexpr int64_t DAY = int64_t{24} * 3600;  // seconds

// Of "S", "M:S" or "H:M:S", with a fraction of the last; nothing when it is none of them.
std::optional<double> ParseSeconds(const std::string& text, size_t* parts) {
    double seconds = 0;
    const char* at = text.c_str();
    for (*parts = 1; *at >= '0' && *at <= '9'; ++at) {
        char* end = nullptr;
        seconds = seconds * 60 + std::strtod(at, &end);
        at = end;
        if (*at == '\0' && seconds <= MOST_SECONDS) {
            return seconds;
        }
        if (*at != ':' || ++*parts > 3) {
            break;
        }
    }
    return std::nullopt;
}

tm LocalTime(int64_t realtime) {
    const auto seconds = static_cast<time_t>(realtime / NANOSECONDS_PER_SECOND);
    tm local{};
    localtime_r(&seconds, &local);
    return local;
}

std::string Format(const char* format, int64_t realtime) {
    const tm local = LocalTime(realtime);
    char text[64];
    return {text, strftime(text, sizeof(text), format, &local)};
}

}  // namespace

Result<int64_t> ParseReplayTime(const std::string& text, const ClockReading& begin) {
    if (text == "end") {
        return INT64_MAX;
    }
    const bool isOffset = text.starts_with('+');
    size_t parts = 0;
    const auto seconds = ParseSeconds(text.substr(isOffset ? 1 : 0), &parts);
    if (!seconds) {
        return Failure("\"" + text + "\" is no time: " + REPLAY_TIME_HELP);
    }
    const auto nanoseconds = static_cast<int64_t>(std::llround(*seconds * 1e9));
    if (isOffset) {
        return begin.monotonic + nanoseconds;
    }
    if (parts == 1) {
        return nanoseconds;
    }
    // "H:MM" was read as minutes and seconds.
    const int64_t ofDay = (parts == 2 ? nanoseconds * 60 : nanoseconds) / NANOSECONDS_PER_SECOND;
    if (ofDay >= DAY) {
        return Failure("\"" + text + "\" is no time of a day; from the beginning is +" + text);
    }
    tm day = LocalTime(begin.realtime);
    day.tm_hour = 0;
    day.tm_min = 0;
    day.tm_sec = static_cast<int>(ofDay);
    day.tm_isdst = -1;
    int64_t realtime = int64_t{mktime(&day)} * NANOSECONDS_PER_SECOND;
    if (realtime < begin.realtime / NANOSECONDS_PER_SECOND * NANOSECONDS_PER_SECOND) {
        realtime += DAY * NANOSECONDS_PER_SECOND;
    }
    return begin.monotonic + (realtime - begin.realtime);
}

std::string FormatTimeOfDay(int64_t realtime) {
    return Format("%H:%M:%S", realtime);
}

std::string FormatDate(int64_t realtime) {
    return Format("%Y-%m-%d %H:%M:%S %z", realtime);
}

std::string FormatOffset(int64_t nanoseconds) {
    const auto seconds = static_cast<long long>(nanoseconds / NANOSECONDS_PER_SECOND);
    return seconds < 3600 ? StringPrintf("+%lld:%02lld", seconds / 60, seconds % 60)
                          : StringPrintf("+%lld:%02lld:%02lld", seconds / 3600, seconds / 60 % 60,
                                         seconds % 60);
}

}  // namespace Tesu::Bpf
