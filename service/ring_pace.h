// SPDX-License-Identifier: Apache-2.0
//
// How long a monitor rests between two readings of its ring. Waking a thread costs as much as some
// hundred records, so records that come thick are taken together; one that comes alone is taken at
// once, because a rest follows only upon records.
//
// A rest is never the cause of a loss: at its end half of the ring is free, however fast the kernel
// writes, and where a reading found much, another follows at once.
//
// In a flow, records need not wake the thread while it rests. It waits for the ring only after a
// whole rest in which they would have (see RingWakeups).
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

    struct Pause {
        // None: the ring is to be waited for.
        std::optional<std::chrono::nanoseconds> rest;
        bool wantsWakeup = true;
    };

    // After a reading of so many bytes; isEmpty: not even an incomplete record is left.
    Pause after(uint64_t bytes, bool isEmpty) {
        if (longest < LEAST_REST || (bytes == 0 && isEmpty && last.wantsWakeup)) {
            last = {};
        } else {
            last = {.rest = bytes < muchBytes ? longest : std::chrono::nanoseconds(0),
                    .wantsWakeup = bytes < FLOW_BYTES};
        }
        return last;
    }

    // After a reading that was interrupted: there is more.
    Pause afterInterruption() {
        last = {.rest = std::chrono::nanoseconds(0), .wantsWakeup = false};
        return last;
    }

  private:
    // One lock lets all CPUs' records into a ring: 25 million a second are more than were seen.
    static constexpr uint32_t BYTES_PER_NANOSECOND = 1;
    // For the sake of the latency of a flow.
    static constexpr std::chrono::nanoseconds MAX_REST{4'000'000};
    // Of a shorter one, falling asleep and waking would be most.
    static constexpr std::chrono::nanoseconds LEAST_REST{200'000};
    // Some six records. A flow that ends costs one more rest.
    static constexpr uint64_t FLOW_BYTES = 256;

    std::chrono::nanoseconds longest;
    uint64_t muchBytes;
    Pause last;
};

}  // namespace Tesu::Bpf
