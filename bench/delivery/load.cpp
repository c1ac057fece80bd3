// SPDX-License-Identifier: Apache-2.0
#include "bench/delivery/load.h"

#include <algorithm>
#include <thread>

#include "bench/delivery/wire.h"

namespace Tesu::Bpf {

namespace {

using std::chrono::steady_clock;

constexpr uint64_t STEPS_PER_SECOND = 1000;
// Without a rate, records of one step: many, because a step has a cost of its own.
constexpr uint64_t LARGE_STEP = 4096;

RecordInjector::Result InjectAt(RecordInjector& injector, int64_t time, uint64_t count = 1) {
    RawDmabufAllocEvent record{};
    record.header.type = RAW_EVENT_DMABUF_SIZE;
    record.header.time = time;
    return injector.inject(&record, sizeof(record), count);
}

}  // namespace

RecordInjector::Result Inject(RecordInjector& injector, const Load& load) {
    const uint64_t steps = std::min(std::max<uint64_t>(load.rate, 1), STEPS_PER_SECOND);
    const uint64_t stepRecords = load.rate == 0 ? LARGE_STEP : load.rate / steps;
    const std::chrono::nanoseconds interval(load.rate == 0 ? 0 : std::nano::den / steps);
    RecordInjector::Result total;
    auto next = steady_clock::now();
    for (const auto end = next + load.duration; std::max(next, steady_clock::now()) < end;) {
        std::this_thread::sleep_until(next += interval);
        const auto now = steady_clock::now().time_since_epoch();
        const uint64_t number = load.firstNumber + total.sent + total.refused;
        const auto result = InjectAt(
            injector, load.isStamped ? now.count() : static_cast<int64_t>(number), stepRecords);
        total.sent += result.sent;
        total.refused += result.refused;
    }
    return total;
}

void InjectProbe(RecordInjector& injector) {
    InjectAt(injector, PROBE_TIME);
}

void InjectEnd(RecordInjector& injector) {
    while (InjectAt(injector, END_TIME).sent == 0) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

}  // namespace Tesu::Bpf
