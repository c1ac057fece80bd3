// SPDX-License-Identifier: Apache-2.0
#include "client/replay/replay.h"

#include <algorithm>
#include <utility>

#include "recording/connection_news.h"
#include "records/event_table.h"
#include "util/monotonic_clock.h"

namespace Tesu::Bpf {

namespace {

// Copies of the model that are kept at most: when there are more, every second of them goes.
constexpr size_t MOST_KEPT = 32;
constexpr int64_t FIRST_KEEP_TIME = 60 * NANOSECONDS_PER_SECOND;

int64_t FullSecond(int64_t time) {
    return time / NANOSECONDS_PER_SECOND * NANOSECONDS_PER_SECOND;
}

}  // namespace

Result<Replay> Replay::open(const std::string& path) {
    Result<RecordingReader> reader = RecordingReader::open(path);
    if (!reader) {
        return Failure(reader.error());
    }
    return Replay(std::move(*reader));
}

Replay::Replay(RecordingReader reader) : reader(std::move(reader)), keepTime(FIRST_KEEP_TIME) {
    const ClockReading& clocks = this->reader.header().block.clocks;
    moment.now = clocks.monotonic;
    moment.tick = FullSecond(moment.now) + NANOSECONDS_PER_SECOND;
    moment.realtimeOffset = clocks.realtime - clocks.monotonic;
    moment.model.advanceTo(FullSecond(moment.now));
    keep();
}

void Replay::goTo(int64_t time) {
    time = std::max(time, clocksAtBegin().monotonic);
    if (time < moment.now) {
        const auto after = std::ranges::upper_bound(kept, time, {}, &Moment::now);
        moment = *std::prev(after);
        reader.seek(moment.position);
        next = nullptr;
        hasEnded = false;
    }
    while (!hasEnded) {
        if (next == nullptr && (next = reader.next()) == nullptr) {
            hasEnded = true;
        } else if (next->time > time) {
            advanceTo(time);
            return;
        } else {
            advanceTo(next->time);
            apply(*std::exchange(next, nullptr));
        }
    }
}

// The model's rates are those of full seconds, whatever moments are asked for.
void Replay::advanceTo(int64_t time) {
    const int64_t second = FullSecond(time);
    // Of seconds in which nothing happened the last is enough.
    for (const int64_t tick : {moment.tick, second}) {
        if (moment.tick <= tick && tick <= second) {
            moment.model.advanceTo(tick);
            // What was due to be read again was, and the recording has what was found.
            moment.model.takeRefreshes(tick, SIZE_MAX);
            moment.tick = tick + NANOSECONDS_PER_SECOND;
        }
    }
    moment.now = std::max(moment.now, time);
    moment.model.advanceTo(moment.now);
}

void Replay::apply(const RecordingItem& item) {
    if (const auto* const event = std::get_if<RecordedEvent>(&item.what)) {
        moment.model.apply(DecodeEvent(event->data, event->size));
    } else if (const auto* const news = std::get_if<RecordedNews>(&item.what)) {
        if (IsNewState(news->state, moment.connection.state)) {
            moment.connection = *news;
        }
    } else if (const auto* const snapshot = std::get_if<RecordedSnapshot>(&item.what)) {
        moment.model.mergeProc(snapshot->begin, snapshot->processes);
        keep();
    } else if (const auto* const refresh = std::get_if<RecordedRefresh>(&item.what)) {
        for (const ProcessSnapshot& process : refresh->processes) {
            moment.model.refresh(process.pid, process);
        }
        for (const int32_t pid : refresh->gone) {
            moment.model.refresh(pid, std::nullopt);
        }
    } else if (const auto* const clocks = std::get_if<ClockReading>(&item.what)) {
        moment.realtimeOffset = clocks->realtime - clocks->monotonic;
    }
}

// Where it is possible to go on later: between two blocks.
void Replay::keep() {
    if (!kept.empty() && moment.now < kept.back().now + keepTime) {
        return;
    }
    moment.position = reader.position();
    kept.push_back(moment);
    if (kept.size() > MOST_KEPT) {
        size_t index = 0;
        std::erase_if(kept, [&index](const Moment& /*moment*/) { return index++ % 2 == 1; });
        keepTime *= 2;
    }
}

}  // namespace Tesu::Bpf
