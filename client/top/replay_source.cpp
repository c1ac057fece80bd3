// SPDX-License-Identifier: Apache-2.0
#include <utility>

#include "client/replay/replay.h"
#include "client/replay/replay_time.h"
#include "client/top/source.h"
#include "util/monotonic_clock.h"

namespace Tesu::Bpf {

namespace {

// How far a key goes.
constexpr int64_t STEP = 10 * NANOSECONDS_PER_SECOND;

class ReplaySource : public TopSource {
  public:
    ReplaySource(std::string path, Replay replay)
        : path(std::move(path)), replay(std::move(replay)), lastAdvance(MonotonicNanoseconds()) {}

    int descriptor() const override { return -1; }
    void takeEvents() override {}
    Result<> obey(Command command, const std::string& argument) override;
    Result<> advance(bool isStill, FrameState* state) override;
    ProcessModel& model() override { return replay.model(); }
    void reportDamage() const override { ReportDamage(path, damage); }

  private:
    void goTo(int64_t time);

    const std::string path;
    Replay replay;
    std::string damage;
    int64_t lastAdvance;  // of this machine's clock
};

void ReplaySource::goTo(int64_t time) {
    replay.goTo(time);
    if (!replay.damage().empty()) {
        damage = replay.damage();
    }
}

Result<> ReplaySource::obey(Command command, const std::string& argument) {
    if (command == Command::GO_TO) {
        const Result<int64_t> time = ParseReplayTime(argument, replay.clocksAtBegin());
        if (!time) {
            return Failure(time.error());
        }
        goTo(*time);
    } else if (command == Command::GO_BACK || command == Command::GO_ON) {
        goTo(replay.now() + (command == Command::GO_ON ? STEP : -STEP));
    }
    return {};
}

Result<> ReplaySource::advance(bool isStill, FrameState* state) {
    const int64_t before = std::exchange(lastAdvance, MonotonicNanoseconds());
    if (!isStill) {
        goTo(replay.now() + lastAdvance - before);
    }
    state->isRecording = true;
    state->isAtEnd = replay.isAtEnd();
    state->connection = replay.connection().state;
    state->lostReason = replay.connection().reason;
    state->clock = FormatOffset(replay.now() - replay.clocksAtBegin().monotonic) + "  " +
                   FormatTimeOfDay(replay.timeOfDay());
    return {};
}

}  // namespace

Result<std::unique_ptr<TopSource>> MakeReplaySource(const std::string& path,
                                                    const std::string& at) {
    Result<Replay> replay = Replay::open(path);
    if (!replay) {
        return Failure(replay.error());
    }
    auto source = std::make_unique<ReplaySource>(path, std::move(*replay));
    const Result<> gone = at.empty() ? Result<>() : source->obey(Command::GO_TO, at);
    if (!gone) {
        return Failure(gone.error());
    }
    return source;
}

}  // namespace Tesu::Bpf
