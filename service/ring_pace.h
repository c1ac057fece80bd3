// SPDX-License-Identifier: Apache-2.0
//
// How long a monitor rests between two readings of its ring. Waking a thread costs as much as some
// hundred records, so records that come thick are taken together; one that comes alone is taken at
// once, because a rest follows only upon records.
//
// A rest is never the cause of a loss: at its end half of the ring is free, however fast the kernel
// writes, and where a reading found much, another follows at once.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <optional>

namespace Tesu::Bpf {

class RingPace {
  public:
    // Bytes of the ring.
    explicit RingPace(uint32_t ringSize)
        : longest(
              std::min(MAX_REST, std::chrono::nanoseconds(ringSize / 2 / BYTES_PER_NANOSECOND))),
          muchBytes(ringSize / 4) {}

    // After a reading of so many bytes; nothing: the ring is to be waited for instead.
    std::optional<std::chrono::nanoseconds> restAfter(uint64_t bytes) const {
        if (bytes == 0 || longest < LEAST_REST) {
            return std::nullopt;
        }
        return bytes < muchBytes ? longest : std::chrono::nanoseconds(0);
    }

  private:
    // One lock lets all CPUs' records into a ring: 25 million a second are more than were seen.
    static constexpr uint32_t BYTES_PER_NANOSECOND = 1;
    // For the sake of the latency of a flow.
    static constexpr std::chrono::nanoseconds MAX_REST{4'000'000};
    // Of a shorter one, falling asleep and waking would be most.
    static constexpr std::chrono::nanoseconds LEAST_REST{200'000};

    std::chrono::nanoseconds longest;
    uint64_t muchBytes;
};

}  // namespace Tesu::Bpf
