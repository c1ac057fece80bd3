// SPDX-License-Identifier: Apache-2.0
#include <time.h>

#include <utility>
#include <vector>

#include "client/replay/replay_time.h"
#include "client/top/source.h"
#include "libtesubpf/event_stream.h"
#include "proc/process_snapshot.h"
#include "recording/connection_news.h"
#include "records/event_table.h"
#include "util/monotonic_clock.h"

namespace Tesu::Bpf {

namespace {

// Processes that are refreshed for a frame at most.
constexpr size_t REFRESHES_PER_FRAME = 64;

class LiveSource : public TopSource {
  public:
    LiveSource(EventStream stream, const std::string& procRoot)
        : stream(std::move(stream)), procRoot(procRoot), reader(procRoot) {}

    int descriptor() const override { return tesubpf_fd(stream.get()); }
    void takeEvents() override;
    Result<> obey(Command command, const std::string& argument) override;
    Result<> advance(bool isStill, FrameState* state) override;
    ProcessModel& model() override { return processes; }

  private:
    EventStream stream;
    std::string procRoot;
    ProcReader reader;
    ProcessModel processes;
    bool isProcDue = true;    // until there is a service, and without one, /proc is all there is
    uint32_t connection = 0;  // see FrameState
    std::string lostReason;
};

// Up to one buffer of the stream, so that a flood of events holds up no key.
void LiveSource::takeEvents() {
    tesubpf_event item;
    while (tesubpf_next(stream.get(), &item) > 0) {
        switch (item.kind) {
            case TESUBPF_RECORD:
                processes.apply(DecodeEvent(item.data, item.size));
                break;
            case TESUBPF_SUBSCRIBED:
                isProcDue = true;
                break;
            default:
                if (IsNewState(item.kind, connection)) {
                    connection = item.kind;
                    lostReason = item.reason;
                }
        }
    }
}

Result<> LiveSource::obey(Command command, const std::string& /*argument*/) {
    isProcDue = isProcDue || command == Command::READ_PROC;
    return {};
}

// Reads of /proc what is due: all of it after a connection was made, or single processes.
Result<> LiveSource::advance(bool /*isStill*/, FrameState* state) {
    const int64_t now = MonotonicNanoseconds();
    processes.advanceTo(now);
    if (isProcDue || processes.wantsProc(now)) {
        std::vector<ProcessSnapshot> all;
        if (!reader.readAll(&all)) {
            return SystemFailure("cannot read " + procRoot);
        }
        processes.mergeProc(now, all);
        isProcDue = false;
    } else {
        for (const int32_t pid : processes.takeRefreshes(now, REFRESHES_PER_FRAME)) {
            processes.refresh(pid, reader.read(pid));
        }
    }
    state->connection = connection;
    state->lostReason = lostReason;
    state->clock = FormatTimeOfDay(ClockNanoseconds(CLOCK_REALTIME));
    return {};
}

}  // namespace

Result<std::unique_ptr<TopSource>> MakeLiveSource(const std::string& socketName,
                                                  const std::string& procRoot) {
    Result<EventStream> stream = OpenEventStream(
        socketName, {RAW_EVENT_TASK_INIT, RAW_EVENT_RSS_STAT, RAW_EVENT_TASK_CREATE,
                     RAW_EVENT_TASK_EXIT, RAW_EVENT_FD_UPDATE, NOTIFICATION_RECORDS_LOST});
    if (!stream) {
        return Failure(stream.error());
    }
    return std::make_unique<LiveSource>(std::move(*stream), procRoot);
}

}  // namespace Tesu::Bpf
