// SPDX-License-Identifier: Apache-2.0
//
// The last values of a figure, one for each second, and what their course means.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace Tesu::Bpf {

// How far back the view looks, in seconds, and so in samples.
inline constexpr size_t HISTORY_SAMPLES = 60;

// The value at the end of each of the last seconds. Seconds without a change cost nothing. Seconds
// are those of any clock that does not go back.
template <size_t Samples = HISTORY_SAMPLES>
class SampleHistory {
  public:
    // The value changed (or is known for the first time) in this second.
    void record(int64_t second, uint32_t value) {
        if (first > last) {
            first = second;
        }
        const uint32_t before = valueAt(last);
        for (int64_t at = std::max(last + 1, oldestAt(second)); at < second; ++at) {
            samples[static_cast<size_t>(at) % Samples] = before;
        }
        last = std::max(last, second);
        samples[static_cast<size_t>(last) % Samples] = value;
    }

    // The values up to this second, oldest first, at least one; empty when none is known.
    std::vector<uint32_t> upTo(int64_t second) const {
        const int64_t end = std::max(second, last);
        std::vector<uint32_t> values;
        for (int64_t at = oldestAt(end); at <= end; ++at) {
            values.push_back(valueAt(at));
        }
        return values;
    }

    // By how much the value rose in the `seconds` up to this one, or since it is known.
    int64_t rise(int64_t second, size_t seconds) const {
        const int64_t end = std::max(second, last);
        const int64_t begin = std::max(end - static_cast<int64_t>(seconds), oldestAt(end));
        return int64_t{valueAt(end)} - int64_t{valueAt(begin)};
    }

  private:
    // The first second of which the value is known at the end of this one.
    int64_t oldestAt(int64_t second) const {
        return std::max(first, second - static_cast<int64_t>(Samples) + 1);
    }

    // What nothing was recorded for has the value of the second before.
    uint32_t valueAt(int64_t second) const {
        return samples[static_cast<size_t>(std::min(second, last)) % Samples];
    }

    int64_t first = INT64_MAX;  // the second of the first value ever; behind `last`: there is none
    int64_t last = 0;           // the second of the newest sample
    std::array<uint32_t, Samples> samples{};
};

// Whether these sizes in KiB, one per second, look like memory that keeps growing: up by a tenth
// and by GROWTH_MIN_KIB at least, in several steps, the last of them a short while ago, and hardly
// anything of it given back.
inline constexpr uint32_t GROWTH_MIN_KIB = 4096;
bool IsGrowing(const std::vector<uint32_t>& sizes);

}  // namespace Tesu::Bpf
