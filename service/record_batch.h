// SPDX-License-Identifier: Apache-2.0
//
// What a reading of a ring does once for many records: add to the counters, and hand events out.
#pragma once

#include <array>
#include <cstdint>

#include "diag/tesu_bpf_state.h"
#include "events/event_manager.h"

namespace Tesu::Bpf {

// Of the thread that made it, which makes no other meanwhile.
class RecordBatch {
  public:
    RecordBatch();
    ~RecordBatch();
    RecordBatch(const RecordBatch&) = delete;
    RecordBatch& operator=(const RecordBatch&) = delete;

    // Counts a record of this kind: in this thread's batch, or at once where there is none.
    static void Count(uint32_t kind);

  private:
    void addCounts();

    EventManager::Batch events;
    std::array<int32_t, STATE_KIND_COUNT> counts{};
    uint32_t total = 0;
};

}  // namespace Tesu::Bpf
