// SPDX-License-Identifier: Apache-2.0
#include "client/process_model.h"

#include <strings.h>

#include <algorithm>
#include <cstdlib>
#include <variant>

#include "util/monotonic_clock.h"

namespace Tesu::Bpf {

namespace {

// Start times from /proc are cut to a clock tick; two of the same process differ by no more.
constexpr int64_t START_TOLERANCE = 20'000'000;
// From a thread's exit record until /proc no longer counts it.
constexpr int64_t EXIT_LAG = 20'000'000;
// From the last process that the starting service tells of until it tells of everything.
constexpr int64_t SERVICE_START_TIME = 1'000'000'000;
// Loops that a view names at most.
constexpr size_t MAX_LOOPS = 8;

// Sums wrap instead of overflowing: sizes are whatever the stream holds.
int64_t Sum(int64_t a, int64_t b) {
    return static_cast<int64_t>(static_cast<uint64_t>(a) + static_cast<uint64_t>(b));
}

// Keeps differences of times within 64 bits, whatever the stream holds.
bool IsTime(int64_t time) {
    return time >= 0 && time <= INT64_MAX / 4;
}

uint32_t ToKib(int64_t bytes) {
    return static_cast<uint32_t>(std::clamp<int64_t>(bytes / 1024, 0, UINT32_MAX));
}

bool ContainsIgnoringCase(std::string_view text, std::string_view part) {
    const auto found = std::search(text.begin(), text.end(), part.begin(), part.end(),
                                   [](char a, char b) { return strncasecmp(&a, &b, 1) == 0; });
    return found != text.end() || part.empty();
}

}  // namespace

int64_t ProcessModel::Process::resident() const {
    return Sum(Sum(memory[MEMORY_FILE], memory[MEMORY_ANON]), memory[MEMORY_SHMEM]);
}

int64_t ProcessModel::second() const {
    return now / NANOSECONDS_PER_SECOND;
}

void ProcessModel::beginSnapshot(int64_t time) {
    now = std::max(now, time);
    snapshotBegin = time;
    snapshotDue.reset();
    exitsDuringSnapshot.clear();
    for (auto& [pid, process] : table) {
        process.wasSeen = false;
    }
}

void ProcessModel::finishSnapshot(const std::vector<ProcessSnapshot>& processes) {
    for (const ProcessSnapshot& process : processes) {
        merge(process);
    }
    // What was forked while /proc was being read may rightly be missing there.
    const int64_t begin = snapshotBegin.value_or(0);
    std::erase_if(table, [begin](const auto& entry) {
        return !entry.second.wasSeen && entry.second.startTime < begin;
    });
    snapshotBegin.reset();
    exitsDuringSnapshot.clear();
}

void ProcessModel::merge(const ProcessSnapshot& snapshot) {
    // With other threads left, a process outlives its main thread.
    if (snapshot.isEnding && snapshot.threads <= 1) {
        return;
    }
    const auto exited = exitsDuringSnapshot.find(snapshot.pid);
    if (exited != exitsDuringSnapshot.end() &&
        exited->second >= snapshot.startTime - START_TOLERANCE) {
        return;
    }
    auto [found, isNew] = table.try_emplace(snapshot.pid);
    Process& process = found->second;
    if (!isNew && snapshot.startTime < process.startTime - START_TOLERANCE) {
        return;  // an earlier process of this number, whose exit has been seen since
    }
    if (isNew || snapshot.startTime > process.startTime + START_TOLERANCE) {
        process = Process();
        process.startTime = snapshot.startTime;
    }
    process.wasSeen = true;
    update(snapshot, true, &process);
    askForName(snapshot.pid, &process, snapshot.readTime);
    if (snapshot.isEnding) {
        askForReread(snapshot.pid, &process, snapshot.readTime + NANOSECONDS_PER_SECOND);
    }
}

// Takes from the snapshot what no event has told more recently.
void ProcessModel::update(const ProcessSnapshot& snapshot, bool withThreads, Process* process) {
    process->ppid = snapshot.ppid;
    process->uid = snapshot.uid;
    process->name = snapshot.name;
    process->isKernelThread = snapshot.isKernelThread;
    if (withThreads && snapshot.readTime > process->threadEventTime) {
        process->threads = snapshot.threads;
        process->threadsTime = snapshot.readTime;
        process->isThreadCountSure = true;
    }
    for (size_t kind = 0; kind < MEMORY_KINDS; ++kind) {
        if (snapshot.readTime > process->memoryTime[kind]) {
            process->memory[kind] = snapshot.memory[kind];
            process->memoryTime[kind] = snapshot.readTime;
        }
    }
    if (snapshot.readTime > process->fdsTime) {
        process->openFds = snapshot.openFds;
        process->fdsTime = snapshot.readTime;
    }
    process->residentHistory.record(second(), ToKib(process->resident()));
    process->threadsMadeHistory.record(second(), process->threadsMade);
}

void ProcessModel::apply(const Event& event) {
    ++counts.records;
    std::visit(
        [this](const auto& known) {
            if constexpr (requires { known.header; }) {
                if (IsTime(known.header.time)) {
                    applyKnown(known);
                }
            }
        },
        event);
}

// The starting service tells of what lives; a little later it tells of what happens.
void ProcessModel::applyKnown(const RawTesuTaskInitEvent& event) {
    snapshotDue = event.header.time + SERVICE_START_TIME;
}

void ProcessModel::applyKnown(const RawRssStatEvent& event) {
    const auto found = table.find(event.pid);
    if (found == table.end() || event.member < 0 || event.member >= MEMORY_KINDS ||
        event.size < 0) {
        return;
    }
    Process& process = found->second;
    const auto kind = static_cast<size_t>(event.member);
    if (event.header.time > process.memoryTime[kind]) {
        process.memory[kind] = event.size;
        process.memoryTime[kind] = event.header.time;
        process.residentHistory.record(second(), ToKib(process.resident()));
    }
}

void ProcessModel::applyKnown(const RawFdUpdateEvent& event) {
    const auto found = table.find(event.pid);
    if (found != table.end() && event.header.time > found->second.fdsTime) {
        found->second.openFds = event.openFds;
        found->second.fdsTime = event.header.time;
    }
}

void ProcessModel::applyKnown(const RawTaskCreateEvent& event) {
    if (event.taskType == RAW_TASK_PROCESS) {
        ++counts.forks;
        addForked(event);
    } else if (event.taskType == RAW_TASK_THREAD) {
        countThread(event.pid, event.header.time, true);
    }
}

void ProcessModel::applyKnown(const RawTaskExitEvent& event) {
    if (event.taskType == RAW_TASK_PROCESS) {
        ++counts.exits;
        removeExited(event);
    } else if (event.taskType == RAW_TASK_THREAD) {
        countThread(event.pid, event.header.time, false);
    }
}

void ProcessModel::addForked(const RawTaskCreateEvent& event) {
    const auto [found, isNew] = table.try_emplace(event.pid);
    Process& process = found->second;
    if (!isNew && event.header.time <= process.startTime + START_TOLERANCE) {
        return;  // /proc told of it first
    }
    process = Process();
    process.ppid = event.ppid;
    process.uid = event.uid;
    process.name = FieldText(event.comm);
    process.startTime = event.header.time;
    process.threadsTime = event.header.time;
    const auto parent = table.find(event.ppid);
    process.isKernelThread = parent != table.end() && parent->second.isKernelThread;
    process.residentHistory.record(second(), 0);
    process.threadsMadeHistory.record(second(), 0);
    askForName(event.pid, &process, event.header.time);
}

void ProcessModel::removeExited(const RawTaskExitEvent& event) {
    if (snapshotBegin) {
        exitsDuringSnapshot[event.pid] = event.header.time;
    }
    const auto found = table.find(event.pid);
    // An exit before the start was that of an earlier process of this number.
    if (found == table.end() || event.header.time < found->second.startTime - START_TOLERANCE) {
        return;
    }
    youngExits.note(FieldText(event.comm),
                    std::max<int64_t>(event.header.time - found->second.startTime, 0),
                    event.header.time);
    table.erase(found);
}

void ProcessModel::countThread(int32_t pid, int64_t time, bool made) {
    const auto found = table.find(pid);
    if (found == table.end()) {
        return;
    }
    Process& process = found->second;
    if (time <= process.threadsTime) {
        // Whether /proc still counted a thread that ended just before is not known.
        if (!made && time > process.threadsTime - EXIT_LAG && process.isThreadCountSure) {
            process.isThreadCountSure = false;
            askForReread(pid, &process, process.threadsTime + SETTLE_TIMES[0]);
        }
        return;
    }
    process.threadEventTime = std::max(process.threadEventTime, time);
    process.threads = made ? process.threads + 1 : std::max(process.threads - 1, 1);
    if (made) {
        ++process.threadsMade;
        process.threadsMadeHistory.record(second(), process.threadsMade);
    }
}

// For the next of its settle times after `time`, if there is one.
void ProcessModel::askForName(int32_t pid, Process* process, int64_t time) {
    for (const int64_t settleTime : SETTLE_TIMES) {
        if (process->startTime + settleTime > time) {
            askForReread(pid, process, process->startTime + settleTime);
            return;
        }
    }
}

void ProcessModel::askForReread(int32_t pid, Process* process, int64_t due) {
    if (process->rereads < SETTLE_TIMES.size()) {
        ++process->rereads;
        rereads.emplace(due, pid);
    }
}

std::vector<int32_t> ProcessModel::takeRereads(int64_t time, size_t limit) {
    std::vector<int32_t> pids;
    auto next = rereads.begin();
    while (next != rereads.end() && next->first <= time && pids.size() < limit) {
        if (table.contains(next->second)) {
            pids.push_back(next->second);
        }
        next = rereads.erase(next);
    }
    return pids;
}

void ProcessModel::applyReread(int32_t pid, const std::optional<ProcessSnapshot>& process) {
    const auto found = table.find(pid);
    if (found == table.end()) {
        return;  // its exit was told meanwhile
    }
    if (!process || (process->isEnding && process->threads <= 1)) {
        // Of a process that was forked since, the exit record is on its way; of one that was found
        // in /proc it may have come before the first snapshot.
        if (found->second.wasSeen) {
            table.erase(found);
        }
        return;
    }
    Process& known = found->second;
    if (std::abs(process->startTime - known.startTime) > START_TOLERANCE) {
        return;  // another process of this number
    }
    const bool hasNameOfFork = process->name == known.name;
    update(*process, !known.isThreadCountSure, &known);
    if (hasNameOfFork) {
        askForName(pid, &known, process->readTime);
    }
}

void ProcessModel::advanceTo(int64_t time) {
    now = std::max(now, time);
    const int64_t elapsed = now - rateTime;
    if (rateTime != 0 && elapsed < NANOSECONDS_PER_SECOND) {
        return;
    }
    if (rateTime != 0) {
        const double seconds = static_cast<double>(elapsed) / NANOSECONDS_PER_SECOND;
        const auto rate = [seconds](uint64_t count, uint64_t before) {
            return static_cast<double>(count - before) / seconds;
        };
        rates.forksPerSecond = rate(counts.forks, countsBefore.forks);
        rates.exitsPerSecond = rate(counts.exits, countsBefore.exits);
        rates.recordsPerSecond = rate(counts.records, countsBefore.records);
    }
    countsBefore = counts;
    rateTime = now;
}

ProcessTotals ProcessModel::totals() const {
    ProcessTotals sum = rates;
    for (const auto& [pid, process] : table) {
        if (process.isKernelThread) {
            ++sum.kernelThreads;
        } else {
            ++sum.processes;
            sum.threads += process.threads;
        }
    }
    return sum;
}

bool ProcessModel::passes(int32_t pid, const Process& process, const ViewRequest& request) const {
    if (process.isKernelThread && !request.withKernelThreads) {
        return false;
    }
    return request.filter.empty() || ContainsIgnoringCase(process.name, request.filter) ||
           std::to_string(pid).starts_with(request.filter);
}

ProcessRow ProcessModel::makeRow(int32_t pid, Process* process) {
    ProcessRow row;
    row.pid = pid;
    row.ppid = process->ppid;
    row.uid = process->uid;
    row.name = process->name;
    row.isKernelThread = process->isKernelThread;
    row.threads = process->threads;
    row.openFds = process->openFds;
    row.memory = process->memory;
    row.resident = process->resident();
    row.age = std::max<int64_t>(now - process->startTime, 0);
    row.history = process->residentHistory.upTo(second());
    row.change = changeOf(process);
    row.isGrowing = IsGrowing(row.history);
    const int64_t made = process->threadsMadeHistory.rise(second(), STORM_SECONDS);
    row.newThreads = made >= STORM_THREADS ? made : 0;
    row.youngExits = row.age <= YoungExits::YOUNG ? youngExits.exitsOf(process->name, now) : 0;
    return row;
}

int64_t ProcessModel::changeOf(Process* process) const {
    return process->residentHistory.rise(second(), HISTORY_SAMPLES) * 1024;
}

ProcessView ProcessModel::view(const ViewRequest& request) {
    struct Entry {
        int64_t key;
        int32_t pid;
        Process* process;
    };
    std::vector<Entry> entries;
    entries.reserve(table.size());
    for (auto& [pid, process] : table) {
        if (passes(pid, process, request)) {
            entries.push_back({keyOf(request.sortKey, pid, &process), pid, &process});
        }
    }
    // Equal ones by number, so that no row moves without a reason.
    const bool byName = request.sortKey == SortKey::NAME;
    const auto before = [&](const Entry& a, const Entry& b) {
        const Entry& first = request.isReversed ? b : a;
        const Entry& second = request.isReversed ? a : b;
        if (byName) {
            const int order = strcasecmp(first.process->name.c_str(), second.process->name.c_str());
            return order != 0 ? order < 0 : a.pid < b.pid;
        }
        return first.key != second.key ? first.key < second.key : a.pid < b.pid;
    };

    ProcessView view;
    view.totals = totals();
    view.matching = entries.size();
    const size_t shown = std::min(request.rowLimit, entries.size());
    view.firstRow = std::min(request.firstRow, entries.size() - shown);
    const auto end = entries.begin() + static_cast<ptrdiff_t>(view.firstRow + shown);
    std::partial_sort(entries.begin(), end, entries.end(), before);
    for (auto entry = entries.begin() + static_cast<ptrdiff_t>(view.firstRow); entry != end;
         ++entry) {
        view.rows.push_back(makeRow(entry->pid, entry->process));
    }
    view.loops = youngExits.loops(now, MAX_LOOPS);
    return view;
}

// Rows are in the order of rising keys.
int64_t ProcessModel::keyOf(SortKey sortKey, int32_t pid, Process* process) const {
    switch (sortKey) {
        case SortKey::MEMORY:
            return -std::max<int64_t>(process->resident(), 0);
        case SortKey::CHANGE:
            return -changeOf(process);
        case SortKey::THREADS:
            return -int64_t{process->threads};
        case SortKey::FDS:
            return -std::max<int64_t>(process->openFds.value_or(-1), -1);
        case SortKey::AGE:
            return -process->startTime;
        case SortKey::PID:
        case SortKey::NAME:
            break;
    }
    return pid;
}

}  // namespace Tesu::Bpf
