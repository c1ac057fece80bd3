// SPDX-License-Identifier: Apache-2.0
#include "client/live/live_processes.h"

#include <iterator>
#include <vector>

#include "records/event_table.h"
#include "util/monotonic_clock.h"

namespace Tesu::Bpf {

namespace {

// Processes that are refreshed at a time at most.
constexpr size_t REFRESHES_AT_A_TIME = 64;

}  // namespace

Result<LiveProcesses> LiveProcesses::open(const std::string& socketName,
                                          const std::string& procRoot) {
    Result<EventStream> stream =
        OpenEventStream(socketName, std::vector(std::begin(TYPES), std::end(TYPES)));
    if (!stream) {
        return Failure(stream.error());
    }
    return LiveProcesses(std::move(*stream), procRoot);
}

void LiveProcesses::takeEvents(const Observer& observe) {
    tesubpf_event item;
    while (tesubpf_next(stream.get(), &item) > 0) {
        if (item.kind == TESUBPF_RECORD) {
            const Event record = DecodeEvent(item.data, item.size);
            observe(item, &record);
            model.apply(record);
        } else {
            isProcDue = isProcDue || item.kind == TESUBPF_SUBSCRIBED;
            observe(item, nullptr);
        }
    }
}

Result<> LiveProcesses::advance() {
    const int64_t now = MonotonicNanoseconds();
    model.advanceTo(now);
    if (isProcDue || model.wantsProc(now)) {
        std::vector<ProcessSnapshot> all;
        if (!reader.readAll(&all)) {
            return SystemFailure("cannot read " + procRoot);
        }
        model.mergeProc(now, all);
        isProcDue = false;
        return {};
    }
    for (const int32_t pid : model.takeRefreshes(now, REFRESHES_AT_A_TIME)) {
        model.refresh(pid, reader.read(pid));
    }
    return {};
}

}  // namespace Tesu::Bpf
