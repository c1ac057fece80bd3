// SPDX-License-Identifier: Apache-2.0
#include "model/process_model.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <variant>

namespace Tesu::Bpf {

namespace {

// Start times from /proc are cut to a clock tick; two of the same process differ by no more.
constexpr int64_t START_TOLERANCE = 20'000'000;
// From a thread's exit record until /proc no longer counts it.
constexpr int64_t EXIT_LAG = 20'000'000;
// From the last process that the starting service reports until it reports everything.
constexpr int64_t SERVICE_START_TIME = 1'000'000'000;
// From a loss until /proc is read again, and so between two readings while losses go on.
constexpr int64_t LOSS_DELAY = 3'000'000'000;
// Loops that a view names at most.
constexpr size_t MAX_LOOPS = 8;

// Times and sizes are whatever the stream holds. Within these bounds no sum and no difference of
// them overflows.
bool IsPlausible(int64_t value) {
    return value >= 0 && value <= INT64_MAX / 4;
}

bool Passes(const ProcessRow& row, const ViewRequest& request) {
    if (row.isKernelThread && !request.withKernelThreads) {
        return false;
    }
    return strcasestr(row.name.c_str(), request.filter.c_str()) != nullptr ||
           std::to_string(row.pid).starts_with(request.filter);
}

bool HasExited(const ProcessSnapshot& snapshot) {
    // With other threads left, a process outlives its main thread.
    return snapshot.isEnding && snapshot.threads <= 1;
}

}  // namespace

ProcessModel::Process* ProcessModel::find(int32_t pid) {
    const auto found = table.find(pid);
    return found == table.end() ? nullptr : &found->second;
}

// Whatever had the number before.
ProcessModel::Process& ProcessModel::startAnew(int32_t pid, int64_t startTime) {
    Process& process = table[pid];
    process = Process();
    process.row.pid = pid;
    process.startTime = startTime;
    return process;
}

void ProcessModel::mergeProc(int64_t begin, const std::vector<ProcessSnapshot>& processes) {
    now = std::max(now, begin);
    procTime = begin;
    procDue.reset();
    for (auto& [pid, process] : table) {
        process.wasInProc = false;
    }
    for (const ProcessSnapshot& snapshot : processes) {
        if (!HasExited(snapshot)) {
            merge(snapshot);
        }
    }
    std::erase_if(table, [begin](const auto& entry) {
        return !entry.second.wasInProc && entry.second.startTime < begin;
    });
}

void ProcessModel::merge(const ProcessSnapshot& snapshot) {
    Process* process = find(snapshot.pid);
    if (process != nullptr && snapshot.startTime < process->startTime - START_TOLERANCE) {
        return;  // an earlier process of this number, whose exit was reported since
    }
    if (process == nullptr || snapshot.startTime > process->startTime + START_TOLERANCE) {
        process = &startAnew(snapshot.pid, snapshot.startTime);
    }
    process->wasInProc = true;
    update(snapshot, true, process);
    scheduleNameRefresh(process, snapshot.readTime);
    if (snapshot.isEnding) {
        scheduleRefresh(process, snapshot.readTime + NANOSECONDS_PER_SECOND);
    }
}

// Takes from the snapshot what no event has reported more recently.
void ProcessModel::update(const ProcessSnapshot& snapshot, bool withThreads, Process* process) {
    ProcessRow& row = process->row;
    row.ppid = snapshot.ppid;
    row.uid = snapshot.uid;
    row.name = snapshot.name;
    row.isKernelThread = snapshot.isKernelThread;
    if (withThreads && snapshot.readTime > process->threadEventTime) {
        row.threads = snapshot.threads;
        process->threadsTime = snapshot.readTime;
        process->isThreadCountSure = true;
    }
    for (size_t member = 0; member < RSS_MEMBER_COUNT; ++member) {
        if (snapshot.readTime > process->memoryTime[member]) {
            row.memory[member] = snapshot.memory[member];
            process->memoryTime[member] = snapshot.readTime;
        }
    }
    if (snapshot.readTime > process->fdsTime) {
        row.openFds = snapshot.openFds;
        process->fdsTime = snapshot.readTime;
    }
    recordResident(process);
    process->threadsMadeHistory.record(second(), process->threadsMade);
}

void ProcessModel::recordResident(Process* process) const {
    ProcessRow& row = process->row;
    row.resident = row.memory[RSS_FILE] + row.memory[RSS_ANON] + row.memory[RSS_SHMEM];
    process->residentHistory.record(
        second(), static_cast<uint32_t>(std::min<int64_t>(row.resident / 1024, UINT32_MAX)));
}

void ProcessModel::apply(const Event& event) {
    ++counts.records;
    std::visit(
        [this](const auto& known) {
            if constexpr (requires { applyKnown(known); }) {
                if (IsPlausible(known.header.time)) {
                    applyKnown(known);
                }
            }
        },
        event);
}

// The starting service reports what lives; a little later it reports what happens.
void ProcessModel::applyKnown(const RawTesuTaskInitEvent& event) {
    procDue = event.header.time + SERVICE_START_TIME;
}

void ProcessModel::applyKnown(const RawRssStatEvent& event) {
    Process* const process = find(event.pid);
    if (process == nullptr || event.member < 0 || event.member >= RSS_MEMBER_COUNT ||
        !IsPlausible(event.size)) {
        return;
    }
    const auto member = static_cast<size_t>(event.member);
    if (event.header.time > process->memoryTime[member]) {
        process->row.memory[member] = event.size;
        process->memoryTime[member] = event.header.time;
        recordResident(process);
    }
}

void ProcessModel::applyKnown(const RawFdUpdateEvent& event) {
    Process* const process = find(event.pid);
    if (process != nullptr && event.header.time > process->fdsTime) {
        process->row.openFds = event.openFds;
        process->fdsTime = event.header.time;
    }
}

void ProcessModel::applyKnown(const RecordsLostNotification& event) {
    recordsLost += event.lost;
    lossTime = event.header.time;
    procDue = procDue.value_or(event.header.time + LOSS_DELAY);
}

void ProcessModel::applyKnown(const RawTaskCreateEvent& event) {
    const int64_t time = event.header.time;
    if (event.taskType == RAW_TASK_THREAD) {
        countThread(event.pid, time, true);
    }
    if (event.taskType != RAW_TASK_PROCESS) {
        return;
    }
    ++counts.forks;
    const Process* const known = find(event.pid);
    if (known != nullptr ? time <= known->startTime + START_TOLERANCE : time < procTime) {
        return;  // found in /proc first, or had gone before it was read
    }
    Process& process = startAnew(event.pid, time);
    process.row.ppid = event.ppid;
    process.row.uid = event.uid;
    process.row.name = FieldText(event.comm);
    const Process* const parent = find(event.ppid);
    process.row.isKernelThread = parent != nullptr && parent->row.isKernelThread;
    process.threadsTime = time;
    recordResident(&process);
    process.threadsMadeHistory.record(second(), 0);
    scheduleNameRefresh(&process, time);
}

void ProcessModel::applyKnown(const RawTaskExitEvent& event) {
    const int64_t time = event.header.time;
    if (event.taskType == RAW_TASK_THREAD) {
        countThread(event.pid, time, false);
    }
    if (event.taskType != RAW_TASK_PROCESS) {
        return;
    }
    ++counts.exits;
    if (const std::optional<Ending> ending = endingOf(event)) {
        crashLoops.addExit(FieldText(event.comm), ending->lifetime, time);
        table.erase(event.pid);
    }
}

std::optional<ProcessModel::Ending> ProcessModel::endingOf(const RawTaskExitEvent& event) const {
    const int64_t time = event.header.time;
    const auto found = table.find(event.pid);
    // An exit before the start was that of an earlier process of this number.
    if (event.taskType != RAW_TASK_PROCESS || !IsPlausible(time) || found == table.end() ||
        time < found->second.startTime - START_TOLERANCE) {
        return {};
    }
    return Ending{.isKernelThread = found->second.row.isKernelThread,
                  .lifetime = std::max<int64_t>(time - found->second.startTime, 0)};
}

void ProcessModel::forEach(const std::function<void(const ProcessRow& row)>& visit) const {
    for (const auto& [pid, process] : table) {
        visit(process.row);
    }
}

void ProcessModel::countThread(int32_t pid, int64_t time, bool made) {
    Process* const process = find(pid);
    if (process == nullptr) {
        return;
    }
    if (time <= process->threadsTime) {
        // Whether /proc still counted a thread that ended just before is not known.
        if (!made && time > process->threadsTime - EXIT_LAG && process->isThreadCountSure) {
            process->isThreadCountSure = false;
            scheduleRefresh(process, process->threadsTime + REFRESH_DELAYS[0]);
        }
        return;
    }
    process->threadEventTime = std::max(process->threadEventTime, time);
    int32_t& threads = process->row.threads;
    threads = made ? threads + 1 : std::max(threads - 1, 1);
    if (made) {
        ++process->threadsMade;
        process->threadsMadeHistory.record(second(), process->threadsMade);
    }
}

// At the next of its delays after `time`, if there is one.
void ProcessModel::scheduleNameRefresh(Process* process, int64_t time) {
    for (const int64_t delay : REFRESH_DELAYS) {
        if (process->startTime + delay > time) {
            scheduleRefresh(process, process->startTime + delay);
            return;
        }
    }
}

// A process is refreshed as often as there are delays, and no more.
void ProcessModel::scheduleRefresh(Process* process, int64_t due) {
    if (process->refreshes < REFRESH_DELAYS.size()) {
        ++process->refreshes;
        refreshes.emplace(due, process->row.pid);
    }
}

std::vector<int32_t> ProcessModel::takeRefreshes(int64_t time, size_t limit) {
    std::vector<int32_t> pids;
    auto next = refreshes.begin();
    while (next != refreshes.end() && next->first <= time && pids.size() < limit) {
        if (table.contains(next->second)) {
            pids.push_back(next->second);
        }
        next = refreshes.erase(next);
    }
    return pids;
}

void ProcessModel::refresh(int32_t pid, const std::optional<ProcessSnapshot>& snapshot) {
    Process* const process = find(pid);
    if (process == nullptr) {
        return;  // its exit was reported meanwhile
    }
    if (!snapshot || HasExited(*snapshot)) {
        // Of a process that was forked since, the exit record is on its way; of one that was found
        // in /proc it may have come before that.
        if (process->wasInProc) {
            table.erase(pid);
        }
        return;
    }
    if (std::abs(snapshot->startTime - process->startTime) > START_TOLERANCE) {
        return;  // another process of this number
    }
    const bool hasNameOfFork = snapshot->name == process->row.name;
    update(*snapshot, !process->isThreadCountSure, process);
    if (hasNameOfFork) {
        scheduleNameRefresh(process, snapshot->readTime);
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

ProcessView ProcessModel::view(const ViewRequest& request) {
    ProcessView view;
    view.totals = rates;
    view.totals.recordsLost = recordsLost;
    view.totals.isLosing = lossTime && now - *lossTime < LOSS_SHOWN;
    std::vector<Process*> matching;
    matching.reserve(table.size());
    for (auto& [pid, process] : table) {
        ProcessRow& row = process.row;
        view.totals.kernelThreads += row.isKernelThread ? 1 : 0;
        view.totals.processes += row.isKernelThread ? 0 : 1;
        view.totals.threads += row.isKernelThread ? 0 : row.threads;
        if (Passes(row, request)) {
            row.change = process.residentHistory.rise(second(), HISTORY_SAMPLES) * 1024;
            row.age = std::max<int64_t>(now - process.startTime, 0);
            matching.push_back(&process);
        }
    }
    view.matching = matching.size();
    const size_t shown = std::min(request.rowLimit, matching.size());
    view.firstRow = std::min(request.firstRow, matching.size() - shown);
    const auto begin = matching.begin() + static_cast<ptrdiff_t>(view.firstRow);
    const auto end = begin + static_cast<ptrdiff_t>(shown);
    // Equal ones by number, so that no row moves without a reason.
    std::partial_sort(
        matching.begin(), end, matching.end(), [&](const Process* a, const Process* b) {
            const int order = request.order != nullptr ? request.order(a->row, b->row) : 0;
            return order != 0 ? (order < 0) != request.isReversed : a->row.pid < b->row.pid;
        });
    for (auto process = begin; process != end; ++process) {
        ProcessRow& row = view.rows.emplace_back((*process)->row);
        row.history = (*process)->residentHistory.upTo(second());
        row.isGrowing = IsGrowing(row.history);
        const int64_t made = (*process)->threadsMadeHistory.rise(second(), STORM_SECONDS);
        row.newThreads = made >= STORM_THREADS ? made : 0;
        row.loopExits = row.age <= CrashLoops::SHORT_LIFE ? crashLoops.exitsOf(row.name, now) : 0;
    }
    view.loops = crashLoops.loops(now, MAX_LOOPS);
    return view;
}

}  // namespace Tesu::Bpf
