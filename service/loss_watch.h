// SPDX-License-Identifier: Apache-2.0
//
// When a monitor looks whether its ring has lost records. A look costs a system call for each CPU,
// so there is none while nothing can have been lost, and at most two in a second.
//
// Invariant: what finds a ring full finds more than half of it written and not read, as no record
// takes half of a ring; and of that nothing was read before the last look. So until half a ring was
// written beyond what had been read when the last look began, nothing was lost after it.
#pragma once

#include <cstdint>

#include "util/monotonic_clock.h"

namespace Tesu::Bpf {

// `written` and `read` are the bytes ever written into the ring and read of it (RingReader), `now`
// is monotonic nanoseconds.
class LossWatch {
  public:
    // The first look at a ring is due at once.
    explicit LossWatch(uint64_t ringSize = 0) : halfRing(ringSize / 2) {}

    bool isDue(uint64_t written, int64_t now) const { return timeout(written, now) == 0; }
    // Milliseconds until a look is due if nothing more is written; -1: none will be.
    int timeout(uint64_t written, int64_t now) const {
        if (isLookedAt && written - readAtLook < halfRing) {
            return -1;
        }
        const int64_t left = isLookedAt ? timeOfLook + INTERVAL - now : 0;
        return left <= 0 ? 0 : static_cast<int>((left + 999'999) / 1'000'000);
    }
    // Before the counters are read.
    void noteLook(uint64_t read, int64_t now) {
        isLookedAt = true;
        readAtLook = read;
        timeOfLook = now;
    }

  private:
    static constexpr int64_t INTERVAL = NANOSECONDS_PER_SECOND / 2;

    uint64_t halfRing;
    bool isLookedAt = false;
    uint64_t readAtLook = 0;
    int64_t timeOfLook = 0;
};

}  // namespace Tesu::Bpf
