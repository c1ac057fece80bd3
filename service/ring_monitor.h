// SPDX-License-Identifier: Apache-2.0
//
// What a monitor has at hand. Of its poll thread alone.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include "service/loss_watch.h"
#include "service/ring_reader.h"
#include "service/tesu_bpf_service.h"

namespace Tesu::Bpf {

struct TesuBpfService::RingMonitor {
    int which;
    const char* name;
    const char* ringPath;
    const char* currentPath;
    const char* polledPath;
    const char* statusPath;
    const char* stopMessage;
    // Tell the kernel programs of what was there before them: when the core class is on, and when
    // the normal class is on too (or null).
    int (TesuBpfService::*seedCore)();
    int (TesuBpfService::*seedNormal)();

    std::unique_ptr<RingReader> reader{};
    bool hasNoPins = false;  // for which it failed
    // Until the programs are switched on, records are those of before and are dropped.
    bool isDropping = true;
    uint64_t dropped = 0;
    uint64_t taken = 0;  // other records

    // The table is mended when the ring has been read up to there; none: nothing is to be mended.
    std::optional<uint64_t> mendAt{};

    LossWatch lossWatch{};
    // Lost records that are not in the status map's count.
    uint64_t uncounted = 0;
    // Of the records lost so far: those that were seen, and those that were logged.
    uint64_t lostSeen = 0;
    uint64_t lostLogged = 0;
    int64_t timeOfLossLog = INT64_MIN / 2;  // monotonic nanoseconds
};

}  // namespace Tesu::Bpf
