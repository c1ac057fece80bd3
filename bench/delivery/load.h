// SPDX-License-Identifier: Apache-2.0
//
// The records that the servers are measured with: 32 bytes, of a type that the service forwards and
// does nothing else with.
#pragma once

#include <chrono>
#include <cstdint>

#include "tests/support/pinned_rings.h"

namespace Tesu::Bpf {

struct Load {
    uint64_t rate;  // records a second; 0: as fast as it goes
    std::chrono::milliseconds duration;
    // The records' times: when they were injected, CLOCK_MONOTONIC. Otherwise numbers that rise
    // by 1.
    bool isStamped = false;
    uint64_t firstNumber = 1;
};

// In even steps, of a millisecond where the rate allows; a step that comes late makes up for it.
// Blocks for the duration.
RecordInjector::Result Inject(RecordInjector& injector, const Load& load);
void InjectProbe(RecordInjector& injector);
// Tries until the ring takes it.
void InjectEnd(RecordInjector& injector);

}  // namespace Tesu::Bpf
