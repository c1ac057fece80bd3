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

// The value at the end of each of the last seconds. Seconds without a change cost nothing until
// somebody looks. Seconds are those of any clock that does not go back.
class SampleHistory {
  public:
    // The value changed (or is known for the first time) in this second.
    void record(int64_t second, uint32_t value) {
        fillTo(second);
        samples[static_cast<size_t>(last) % HISTORY_SAMPLES] = value;
    }

    // The values up to this second, oldest first, at least one; empty when none is known.
    std::vector<uint32_t> upTo(int64_t second) {
        std::vector<uint32_t> values;
        if (count == 0) {
            return values;
        }
        fillTo(second);
        values.reserve(count);
        for (size_t back = count; back-- > 0;) {
            values.push_back(samples[indexOf(back)]);
        }
        return values;
    }

    // By how much the value rose in the `seconds` up to this one, or since it is known.
    int64_t rise(int64_t second, size_t seconds) {
        if (count == 0) {
            return 0;
        }
        fillTo(second);
        const size_t back = std::min<size_t>(seconds, count - 1U);
        return int64_t{samples[indexOf(0)]} - int64_t{samples[indexOf(back)]};
    }

  private:
    size_t indexOf(size_t back) const {
        return (static_cast<size_t>(last) + HISTORY_SAMPLES - back) % HISTORY_SAMPLES;
    }

    // What nothing was recorded for has the value of the second before.
    void fillTo(int64_t second) {
        if (count == 0) {
            last = second;
            count = 1;
            samples[static_cast<size_t>(last) % HISTORY_SAMPLES] = 0;
            return;
        }
        const uint32_t value = samples[indexOf(0)];
        const int64_t from = std::max(last + 1, second - static_cast<int64_t>(HISTORY_SAMPLES) + 1);
        for (int64_t at = from; at <= second; ++at) {
            samples[static_cast<size_t>(at) % HISTORY_SAMPLES] = value;
        }
        if (second > last) {
            count = static_cast<uint32_t>(
                std::min<int64_t>(HISTORY_SAMPLES, int64_t{count} + second - last));
            last = second;
        }
    }

    int64_t last = 0;  // the second of the newest sample
    uint32_t count = 0;
    std::array<uint32_t, HISTORY_SAMPLES> samples{};
};

// Whether these sizes in KiB, one per second, look like memory that keeps growing: up by a tenth
// and by GROWTH_MIN_KIB at least, in several steps, the last of them a short while ago, and hardly
// anything of it given back.
inline constexpr uint32_t GROWTH_MIN_KIB = 4096;
bool IsGrowing(const std::vector<uint32_t>& sizes);

}  // namespace Tesu::Bpf
