// SPDX-License-Identifier: Apache-2.0
//
// A live picture of the machine's processes: begun from /proc, kept current from the service's
// events.
//
//   subscribe -> begin = now -> read /proc -> mergeProc(begin, ...) -> apply, apply, ...
//
// In this order nothing is missed; events may also be applied before. Of what both report, time
// decides, so that nothing counts twice: of two values the newer holds, and a thread counts only if
// it came or went after its process was read.
//
// `tesubpf top` drives it from its poll loop. A test drives it the same way without a terminal: it
// hands over what EventStream and ProcReader give and compares view() with what it expects.
//
// Pure: touches neither /proc nor the clock. Times are monotonic nanoseconds. Used by one thread at
// a time.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "model/crash_loops.h"
#include "model/sample_history.h"
#include "proc/process_snapshot.h"
#include "records/event_table.h"
#include "records/raw_event.h"
#include "util/monotonic_clock.h"

namespace Tesu::Bpf {

struct ProcessRow {
    int32_t pid = 0;
    int32_t ppid = 0;
    int32_t uid = -1;  // -1: not known
    std::string name;  // as the kernel has it, any bytes
    bool isKernelThread = false;
    int32_t threads = 1;
    std::optional<int64_t> openFds;
    std::array<int64_t, RSS_MEMBER_COUNT> memory{};  // bytes, by RssMember
    int64_t resident = 0;                            // bytes, swap left out

    // As of the view's time.
    int64_t change = 0;  // bytes, of `resident` over the history
    int64_t age = 0;     // nanoseconds
    // Resident KiB of the last seconds, oldest first.
    std::vector<uint32_t> history;
    bool isGrowing = false;
    int64_t newThreads = 0;  // within the last seconds, if they make a storm; else 0
    // Of this name, if they make a loop and this process may be the next of them; else 0.
    uint32_t loopExits = 0;
};

struct ProcessTotals {
    size_t processes = 0;
    size_t kernelThreads = 0;  // not among the processes
    int64_t threads = 0;       // of the processes
    double forksPerSecond = 0;
    double exitsPerSecond = 0;
    double recordsPerSecond = 0;
    uint64_t recordsLost = 0;  // that the service told of since the model began
    bool isLosing = false;     // within the last seconds
};

// Negative when `a` comes before `b`, positive when behind it. History and hints are not set yet.
using ProcessOrder = int (*)(const ProcessRow& a, const ProcessRow& b);

struct ViewRequest {
    ProcessOrder order = nullptr;  // equal ones, and without an order all, by pid
    bool isReversed = false;
    bool withKernelThreads = true;
    // Part of the name, whatever the case, or the beginning of the pid; empty: every process.
    std::string filter{};
    size_t firstRow = 0;
    size_t rowLimit = SIZE_MAX;

    bool operator==(const ViewRequest&) const = default;
};

struct ProcessView {
    ProcessTotals totals;
    size_t matching = 0;  // processes that pass the filter
    size_t firstRow = 0;  // as asked, or less when there are not that many
    std::vector<ProcessRow> rows;
    std::vector<CrashLoops::Loop> loops;
};

class ProcessModel {
  public:
    // Threads made within this many seconds, and how many make a storm.
    static constexpr size_t STORM_SECONDS = 10;
    static constexpr int64_t STORM_THREADS = 30;
    // A fork record has the parent's name. Its own comes with an exec or soon after, of which there
    // is no record: so long after its start a process is refreshed from /proc, for the second and
    // third time only if it still had the name of the fork.
    static constexpr std::array<int64_t, 3> REFRESH_DELAYS = {200'000'000, 1'000'000'000,
                                                              5'000'000'000};
    // Losses are called recent for so long, which is longer than between two notifications of
    // losses that go on.
    static constexpr int64_t LOSS_SHOWN = 5'000'000'000;

    // All that was found in /proc. begin: right before it was read. What is known and was not
    // found has gone, unless it was forked since.
    void mergeProc(int64_t begin, const std::vector<ProcessSnapshot>& processes);

    void apply(const Event& event);

    // Whether the service has started or lost records since /proc was read: there were no events of
    // some of what happened.
    bool wantsProc(int64_t now) const { return procDue && now >= *procDue; }

    // Processes that are due to be refreshed, at most `limit`; each is given out once and answered
    // with refresh(), without a snapshot when it has gone.
    std::vector<int32_t> takeRefreshes(int64_t now, size_t limit);
    void refresh(int32_t pid, const std::optional<ProcessSnapshot>& snapshot);

    // Lets the time pass: rates are those of the last full second.
    void advanceTo(int64_t now);

    // The process whose end an exit record reports, as it is known before the record is applied.
    struct Ending {
        bool isKernelThread = false;
        int64_t lifetime = 0;  // nanoseconds
    };
    std::optional<Ending> endingOf(const RawTaskExitEvent& event) const;

    // Every process, in no order; `age`, `change`, history and hints are not set.
    void forEach(const std::function<void(const ProcessRow& row)>& visit) const;

    // As of the last advanceTo. Sizes up the whole table, but only the rows asked for are copied.
    ProcessView view(const ViewRequest& request);

  private:
    struct Process {
        ProcessRow row;
        int64_t startTime = 0;
        int64_t threadsTime = 0;      // thread events up to it are in row.threads
        int64_t threadEventTime = 0;  // of the last one that was counted
        bool isThreadCountSure = true;
        std::array<int64_t, RSS_MEMBER_COUNT> memoryTime{};
        int64_t fdsTime = 0;
        uint32_t threadsMade = 0;
        size_t refreshes = 0;    // so far
        bool wasInProc = false;  // when /proc was last read as a whole
        SampleHistory<> residentHistory;
        SampleHistory<> threadsMadeHistory;
    };

    void applyKnown(const RawTesuTaskInitEvent& event);
    void applyKnown(const RawRssStatEvent& event);
    void applyKnown(const RawTaskCreateEvent& event);
    void applyKnown(const RawTaskExitEvent& event);
    void applyKnown(const RawFdUpdateEvent& event);
    void applyKnown(const RecordsLostNotification& event);

    Process* find(int32_t pid);
    Process& startAnew(int32_t pid, int64_t startTime);
    void countThread(int32_t pid, int64_t time, bool made);
    void recordResident(Process* process) const;
    void scheduleNameRefresh(Process* process, int64_t time);
    void scheduleRefresh(Process* process, int64_t due);
    void merge(const ProcessSnapshot& snapshot);
    void update(const ProcessSnapshot& snapshot, bool withThreads, Process* process);
    int64_t second() const { return now / NANOSECONDS_PER_SECOND; }

    std::unordered_map<int32_t, Process> table;
    CrashLoops crashLoops;
    std::multimap<int64_t, int32_t> refreshes;  // due time to pid
    int64_t procTime = 0;                       // right before /proc was read, the last time
    std::optional<int64_t> procDue;

    int64_t now = 0;
    struct Counts {
        uint64_t forks = 0;
        uint64_t exits = 0;
        uint64_t records = 0;
    };
    Counts counts;
    Counts countsBefore;  // at rateTime
    int64_t rateTime = 0;
    ProcessTotals rates;  // the three rates of it
    uint64_t recordsLost = 0;
    std::optional<int64_t> lossTime;  // of the last one
};

}  // namespace Tesu::Bpf
