// SPDX-License-Identifier: Apache-2.0
//
// A live picture of the machine's processes: begun from /proc, kept current from the service's
// events.
//
//   subscribe -> beginSnapshot -> read /proc -> finishSnapshot -> apply, apply, ...
//
// In this order nothing is missed. What both tell is told apart by time, so that nothing counts
// twice: of two values the newer holds, and a thread counts only if it came or went after the
// process was read. Events may be applied at any moment, also before and during a snapshot.
//
// Pure: touches neither /proc nor the clock. Times are monotonic nanoseconds. Used by one thread at
// a time.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "records/event_table.h"
#include "client/sample_history.h"
#include "client/young_exits.h"
#include "proc/process_snapshot.h"

namespace Tesu::Bpf {

enum class SortKey { MEMORY, CHANGE, THREADS, FDS, AGE, PID, NAME };

struct ProcessRow {
    int32_t pid = 0;
    int32_t ppid = 0;
    int32_t uid = -1;  // -1: not known
    std::string name;  // as the kernel has it, any bytes
    bool isKernelThread = false;
    int32_t threads = 0;
    std::optional<int64_t> openFds;
    std::array<int64_t, MEMORY_KINDS> memory{};  // bytes
    int64_t resident = 0;                        // bytes, swap left out
    int64_t change = 0;                          // bytes, of `resident` over the history
    int64_t age = 0;                             // nanoseconds
    // Resident KiB of the last seconds, oldest first.
    std::vector<uint32_t> history;
    bool isGrowing = false;
    int64_t newThreads = 0;  // within the last seconds, if they make a storm; else 0
    // Of this name, if they make a loop and this process may be the next of them; else 0.
    uint32_t youngExits = 0;
};

struct ProcessTotals {
    size_t processes = 0;
    size_t kernelThreads = 0;  // not among the processes
    int64_t threads = 0;       // of the processes
    double forksPerSecond = 0;
    double exitsPerSecond = 0;
    double recordsPerSecond = 0;
};

struct ViewRequest {
    SortKey sortKey = SortKey::MEMORY;
    bool isReversed = false;
    bool withKernelThreads = true;
    // Part of the name, whatever the case, or the beginning of the pid; empty: every process.
    std::string filter{};
    size_t firstRow = 0;
    size_t rowLimit = SIZE_MAX;
};

struct ProcessView {
    ProcessTotals totals;
    size_t matching = 0;  // processes that pass the filter
    size_t firstRow = 0;  // as asked, or less when there are not that many
    std::vector<ProcessRow> rows;
    std::vector<YoungExits::Loop> loops;
};

class ProcessModel {
  public:
    // Threads made within this many seconds, and how many make a storm.
    static constexpr size_t STORM_SECONDS = 10;
    static constexpr int64_t STORM_THREADS = 30;
    // After its start, when /proc is asked for a process's own name; the later times are for those
    // that still have the name of their parent at the fork.
    static constexpr std::array<int64_t, 3> SETTLE_TIMES = {200'000'000, 1'000'000'000,
                                                            5'000'000'000};

    // To be called right before /proc is read as a whole, and with the result of that.
    void beginSnapshot(int64_t now);
    void finishSnapshot(const std::vector<ProcessSnapshot>& processes);

    void apply(const Event& event);

    // Whether the service has begun to work since /proc was read: what happened before is not told
    // by events.
    bool wantsSnapshot(int64_t now) const { return snapshotDue && now >= *snapshotDue; }

    // Processes that are due to be read once more, at most `limit`; each is given out once and
    // answered with applyReread (none: it has gone).
    std::vector<int32_t> takeRereads(int64_t now, size_t limit);
    void applyReread(int32_t pid, const std::optional<ProcessSnapshot>& process);

    // Lets the time pass: rates are those of the last full second.
    void advanceTo(int64_t now);

    // As of the last advanceTo. Sizes up the whole table, but only the rows asked for are copied.
    ProcessView view(const ViewRequest& request);

  private:
    struct Process {
        int32_t ppid = 0;
        int32_t uid = -1;
        std::string name;
        bool isKernelThread = false;
        int64_t startTime = 0;
        int32_t threads = 1;
        int64_t threadsTime = 0;      // thread events up to it are in `threads`
        int64_t threadEventTime = 0;  // of the last one that was counted
        bool isThreadCountSure = true;
        std::array<int64_t, MEMORY_KINDS> memory{};
        std::array<int64_t, MEMORY_KINDS> memoryTime{};
        std::optional<int64_t> openFds;
        int64_t fdsTime = 0;
        uint32_t threadsMade = 0;
        size_t rereads = 0;    // so far
        bool wasSeen = false;  // by the last snapshot of the whole, or the one being merged
        SampleHistory residentHistory;
        SampleHistory threadsMadeHistory;

        int64_t resident() const;
    };
    using Table = std::unordered_map<int32_t, Process>;

    void applyKnown(const RawTesuTaskInitEvent& event);
    void applyKnown(const RawRssStatEvent& event);
    void applyKnown(const RawTaskCreateEvent& event);
    void applyKnown(const RawTaskExitEvent& event);
    void applyKnown(const RawFdUpdateEvent& event);
    // Records that tell nothing of what is shown.
    void applyKnown(const RawDmabufAllocEvent& /*event*/) {}
    void applyKnown(const RawCgroupAttachEvent& /*event*/) {}

    void addForked(const RawTaskCreateEvent& event);
    void removeExited(const RawTaskExitEvent& event);
    void countThread(int32_t pid, int64_t time, bool made);
    void askForName(int32_t pid, Process* process, int64_t time);
    // Not without end: a process is read at most as often as it has settle times.
    void askForReread(int32_t pid, Process* process, int64_t due);
    void merge(const ProcessSnapshot& snapshot);
    void update(const ProcessSnapshot& snapshot, bool withThreads, Process* process);
    bool passes(int32_t pid, const Process& process, const ViewRequest& request) const;
    ProcessTotals totals() const;
    int64_t changeOf(Process* process) const;
    int64_t keyOf(SortKey sortKey, int32_t pid, Process* process) const;
    ProcessRow makeRow(int32_t pid, Process* process);
    int64_t second() const;

    Table table;
    YoungExits youngExits;
    std::multimap<int64_t, int32_t> rereads;  // due time to pid

    // While /proc is being read: when that began, and the exits since then.
    std::optional<int64_t> snapshotBegin;
    std::unordered_map<int32_t, int64_t> exitsDuringSnapshot;
    std::optional<int64_t> snapshotDue;

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
};

}  // namespace Tesu::Bpf
