// SPDX-License-Identifier: Apache-2.0
//
// When a monitor looks whether its ring has lost records. A look costs a system call for each CPU,
// so there is none while nothing can have been lost, and at most two in a second.
//
// Invariant: whatever finds a ring full finds in it all that was written since the last look and is
// not read, which is the ring but for less than a record. No record takes half of a ring. So where
// less than half of the ring was written since the last look, nothing was lost since then.
#pragma once

#include <cstdint>

#include "util/monotonic_clock.h"

namespace Tesu::Bpf {

// `written` is the bytes that were ever written into the ring (RingReader::written), `now` is
// monotonic nanoseconds.
class LossWatch {
  public:
    // The first look at a ring is due at once.
    explicit LossWatch(uint64_t ringSize = 0) : halfRing(ringSize / 2) {}

    bool isDue(uint64_t written, int64_t now) const { return timeout(written, now) == 0; }
    // Milliseconds until a look is due if nothing more is written; -1: none will be.
    int timeout(uint64_t written, int64_t now) const {
        if (isLookedAt && written - writtenAtLook < halfRing) {
            return -1;
        }
        const int64_t left = isLookedAt ? timeOfLook + INTERVAL - now : 0;
        return left <= 0 ? 0 : static_cast<int>((left + 999'999) / 1'000'000);
    }
    void noteLook(uint64_t written, int64_t now) {
        isLookedAt = true;
        writtenAtLook = written;
        timeOfLook = now;
    }

  private:
    static constexpr int64_t INTERVAL = NANOSECONDS_PER_SECOND / 2;

    uint64_t halfRing;
    bool isLookedAt = false;
    uint64_t writtenAtLook = 0;
    int64_t timeOfLook = 0;
};

}  // namespace Tesu::Bpf
