// SPDX-License-Identifier: Apache-2.0
#include "service/record_batch.h"

#include <utility>

namespace Tesu::Bpf {

namespace {

// A reading that does not come to an end is counted all the same.
constexpr uint32_t RECORDS_PER_ADDING = 4096;

thread_local RecordBatch* openBatch = nullptr;

}  // namespace

RecordBatch::RecordBatch() {
    openBatch = this;
}

RecordBatch::~RecordBatch() {
    openBatch = nullptr;
    addCounts();
}

void RecordBatch::Count(uint32_t kind) {
    if (openBatch == nullptr || kind >= STATE_KIND_COUNT) {
        TesuBpfDataState::GetInstance()->RecordEvent(static_cast<int>(kind), 1);
        return;
    }
    ++openBatch->counts[kind];
    if (++openBatch->total == RECORDS_PER_ADDING) {
        openBatch->addCounts();
    }
}

void RecordBatch::addCounts() {
    total = 0;
    for (uint32_t kind = 0; kind < STATE_KIND_COUNT; ++kind) {
        if (const int32_t count = std::exchange(counts[kind], 0)) {
            TesuBpfDataState::GetInstance()->RecordEvent(static_cast<int>(kind), count);
        }
    }
}

}  // namespace Tesu::Bpf
