// SPDX-License-Identifier: Apache-2.0
//
// What a recording tells, as a trace:
//
//   begin -> add, add, ... (take now and then) -> finish -> take
//
// It follows the lives of processes, because events name a process by its number alone: what is
// told of a number that no process has is left out, as is what a later reading of /proc knows
// better. Everything that comes before begin() counts for what there is at that moment.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "client/export/perfetto_trace.h"
#include "proc/process_snapshot.h"
#include "recording/reader.h"
#include "records/event_table.h"

namespace Tesu::Bpf {

// Times are monotonic nanoseconds. Used by one thread at a time.
class TraceExport {
  public:
    explicit TraceExport(const RecordingHeader& header)
        : header(header.block), clocks(header.block.clocks) {}

    // From here on it is a trace: it begins with the processes that there are.
    void begin(int64_t time);
    void add(const RecordingItem& item);
    // Nothing more comes.
    void finish();

    // What can be written of the trace; to be called every second of it or more often.
    std::string take() { return trace.take(); }

  private:
    struct Life {
        ProcessSnapshot process;  // as known now; startTime is that of the fork, where it was told
        int64_t knownSince = 0;   // from when on the trace has it
        int64_t lastTime = 0;     // of what the trace has of it
        int64_t threadsTime = 0;  // thread events up to it are in process.threads
        int64_t seenInProc = 0;   // the reading of /proc that had it last
        bool isNameRead = true;   // of /proc; else it is that of the fork
        bool hadThreads = false;  // beside its first
        std::optional<int64_t> dmabufSize;
    };

    void apply(const RawRssStatEvent& event, int64_t time);
    void apply(const RawTaskCreateEvent& event, int64_t time);
    void apply(const RawTaskExitEvent& event, int64_t time);
    void apply(const RawDmabufAllocEvent& event, int64_t time);
    void apply(const RawFdUpdateEvent& event, int64_t time);
    void apply(const RecordsLostNotification& event, int64_t time);
    void apply(const RecordedNews& news, int64_t time);
    void apply(const RecordedSnapshot& snapshot);
    void apply(const RecordedRefresh& refresh);

    Life* find(int32_t pid);
    Life* findAt(int32_t pid, int64_t time);
    void countThread(int32_t pid, int64_t time, int32_t change);
    void announce(const Life& life, int64_t time);
    void update(Life* life, const ProcessSnapshot& snapshot);
    int64_t end(int32_t pid, int64_t time, std::string_view name);
    void endMissing();

    const HeaderBlock header;
    PerfettoTrace trace;
    std::map<int32_t, Life> lives;
    ClockReading clocks;             // read last
    std::optional<std::string> gap;  // why nothing is recorded; none: it is
    // Processes that /proc had no more although no exit was told, which may be on its way, and from
    // when on it would have come.
    std::vector<int32_t> missing;
    int64_t missingSince = 0;
    int64_t missingDue = INT64_MAX;
};

}  // namespace Tesu::Bpf
