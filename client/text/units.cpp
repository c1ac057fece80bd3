// SPDX-License-Identifier: Apache-2.0
#include "client/text/units.h"

#include <cmath>

#include "util/string_util.h"

namespace Tesu::Bpf {

std::string FormatBytes(int64_t bytes) {
    static constexpr const char* UNITS[] = {"KiB", "MiB", "GiB", "TiB"};
    auto value = static_cast<double>(bytes);
    if (std::abs(value) < 1024) {
        return StringPrintf("%lld B", static_cast<long long>(bytes));
    }
    const char* unit = UNITS[0];
    for (const char* next : UNITS) {
        // 1023.95 and more would be shown as 1024.0.
        if (std::abs(value) < 1023.95) {
            break;
        }
        value /= 1024;
        unit = next;
    }
    return StringPrintf("%.1f %s", value, unit);
}

std::string FormatSignedBytes(int64_t bytes) {
    return (bytes >= 0 ? "+" : "") + FormatBytes(bytes);
}

std::string FormatDuration(int64_t nanoseconds) {
    const auto value = static_cast<double>(nanoseconds);
    if (value < 1e6) {
        return StringPrintf("%.0f us", value / 1e3);
    }
    if (value < 1e9) {
        return StringPrintf("%.1f ms", value / 1e6);
    }
    if (value < 60e9) {
        return StringPrintf("%.2f s", value / 1e9);
    }
    const auto minutes = static_cast<long long>(nanoseconds / 60'000'000'000);
    if (minutes < 60) {
        return StringPrintf("%lld m %02lld s", minutes,
                            static_cast<long long>(nanoseconds / 1'000'000'000 % 60));
    }
    return StringPrintf("%lld h %02lld m", minutes / 60, minutes % 60);
}

}  // namespace Tesu::Bpf
