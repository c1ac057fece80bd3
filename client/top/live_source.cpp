// SPDX-License-Identifier: Apache-2.0
#include <time.h>

#include <utility>

#include "client/live/live_processes.h"
#include "client/replay/replay_time.h"
#include "client/top/source.h"
#include "recording/connection_news.h"
#include "util/monotonic_clock.h"

namespace Tesu::Bpf {

namespace {

class LiveSource : public TopSource {
  public:
    explicit LiveSource(LiveProcesses live) : live(std::move(live)) {}

    int descriptor() const override { return live.descriptor(); }
    void takeEvents() override;
    Result<> obey(Command command, const std::string& argument) override;
    Result<> advance(bool isStill, FrameState* state) override;
    ProcessModel& model() override { return live.model; }

  private:
    LiveProcesses live;
    uint32_t connection = 0;  // see FrameState
    std::string lostReason;
};

void LiveSource::takeEvents() {
    live.takeEvents([this](const tesubpf_event& item, const Event* /*record*/) {
        if (IsNewState(item.kind, connection)) {
            connection = item.kind;
            lostReason = item.reason;
        }
    });
}

Result<> LiveSource::obey(Command command, const std::string& /*argument*/) {
    if (command == Command::READ_PROC) {
        live.readProcAgain();
    }
    return {};
}

Result<> LiveSource::advance(bool /*isStill*/, FrameState* state) {
    state->connection = connection;
    state->lostReason = lostReason;
    state->clock = FormatTimeOfDay(ClockNanoseconds(CLOCK_REALTIME));
    return live.advance();
}

}  // namespace

Result<std::unique_ptr<TopSource>> MakeLiveSource(const std::string& socketName,
                                                  const std::string& procRoot) {
    Result<LiveProcesses> live = LiveProcesses::open(socketName, procRoot);
    if (!live) {
        return Failure(live.error());
    }
    return std::make_unique<LiveSource>(std::move(*live));
}

}  // namespace Tesu::Bpf
