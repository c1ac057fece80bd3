// SPDX-License-Identifier: Apache-2.0
//
// The processes of a recording at any moment of it: the second source of a ProcessModel, beside the
// service and /proc.
//
//   open -> goTo(time) -> model().view(...) -> goTo(another time) ...
//
// A moment looks the same from whatever other moment one comes. Forwards what lies between is
// applied; backwards that is done from a copy of the model that was kept on the way.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "model/process_model.h"
#include "recording/reader.h"

namespace Tesu::Bpf {

// Says on standard error where a recording stops before its end; nothing when `damage` is empty.
inline void ReportDamage(const std::string& path, const std::string& damage) {
    if (!damage.empty()) {
        std::fprintf(stderr, "tesubpf: %s %s\n", path.c_str(), damage.c_str());
    }
}

// Used by one thread at a time.
class Replay {
  public:
    // Fails where RecordingReader::open() does.
    static Result<Replay> open(const std::string& path);

    // To this monotonic time, or to the beginning or end when it lies beyond.
    void goTo(int64_t time);

    const ClockReading& clocksAtBegin() const { return reader.header().block.clocks; }
    int64_t now() const { return moment.now; }
    // No later time was recorded.
    bool isAtEnd() const { return hasEnded && next == nullptr; }
    // Once at the end: see RecordingReader::damage().
    const std::string& damage() const { return reader.damage(); }

    // As of now().
    ProcessModel& model() { return moment.model; }
    const RecordedNews& connection() const { return moment.connection; }
    // Nanoseconds since the epoch.
    int64_t timeOfDay() const { return moment.now + moment.realtimeOffset; }

  private:
    explicit Replay(RecordingReader reader);

    struct Moment {
        int64_t now = 0;
        int64_t tick = 0;      // the next full second
        int64_t position = 0;  // in the file, of what follows
        int64_t realtimeOffset = 0;
        RecordedNews connection;
        ProcessModel model;
    };

    void apply(const RecordingItem& item);
    void advanceTo(int64_t time);
    void keep();

    RecordingReader reader;
    Moment moment;
    // Of the reader, not yet applied; null: none.
    const RecordingItem* next = nullptr;
    bool hasEnded = false;
    std::vector<Moment> kept;  // by time, the first at the beginning
    int64_t keepTime;          // from one to the next at least
};

}  // namespace Tesu::Bpf
