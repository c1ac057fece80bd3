// SPDX-License-Identifier: Apache-2.0
#include "client/export/trace_export.h"

#include <algorithm>
#include <utility>
#include <variant>

#include "util/monotonic_clock.h"
#include "util/string_util.h"

namespace Tesu::Bpf {

namespace {

constexpr const char* THREADS = "threads";
constexpr const char* OPEN_FDS = "open fds";

// From a reading of /proc until every exit of before was received.
constexpr int64_t EXIT_DELAY = NANOSECONDS_PER_SECOND;

}  // namespace

TraceExport::Life* TraceExport::find(int32_t pid) {
    const auto found = lives.find(pid);
    return found == lives.end() ? nullptr : &found->second;
}

// The process that had the number then, for a value of that time.
TraceExport::Life* TraceExport::findAt(int32_t pid, int64_t time) {
    Life* const life = find(pid);
    if (life == nullptr || time < life->knownSince) {
        return nullptr;
    }
    life->lastTime = std::max(life->lastTime, time);
    return life;
}

void TraceExport::begin(int64_t time) {
    trace = PerfettoTrace();
    trace.addClocks(clocks);
    trace.addMachine(header);
    for (auto& [pid, life] : lives) {
        life.knownSince = std::max(life.knownSince, time);
        life.lastTime = std::max(life.lastTime, time);
        announce(life, time);
    }
    if (gap) {
        trace.beginGap(time, *gap);
    }
}

void TraceExport::add(const RecordingItem& item) {
    if (item.time >= missingDue) {
        endMissing();
    }
    if (const auto* const record = std::get_if<RecordedEvent>(&item.what)) {
        std::visit(
            [&](const auto& event) {
                if constexpr (requires { apply(event, item.time); }) {
                    // Nothing was received before it happened.
                    const int64_t time = event.header.time;
                    apply(event, time >= 0 && time <= item.time ? time : item.time);
                }
            },
            DecodeEvent(record->data, record->size));
    } else if (const auto* const news = std::get_if<RecordedNews>(&item.what)) {
        apply(*news, item.time);
    } else if (const auto* const snapshot = std::get_if<RecordedSnapshot>(&item.what)) {
        apply(*snapshot);
    } else if (const auto* const refresh = std::get_if<RecordedRefresh>(&item.what)) {
        apply(*refresh);
    } else if (const auto* const reading = std::get_if<ClockReading>(&item.what)) {
        clocks = *reading;
        trace.addClocks(clocks);
    }
}

void TraceExport::finish() {
    endMissing();
}

void TraceExport::apply(const RawTaskCreateEvent& event, int64_t time) {
    if (event.taskType == RAW_TASK_THREAD) {
        countThread(event.pid, time, 1);
    }
    if (event.taskType != RAW_TASK_PROCESS) {
        return;
    }
    if (const Life* const known = find(event.pid)) {
        if (time <= known->process.startTime + START_TOLERANCE) {
            return;  // found in /proc first
        }
        end(event.pid, time, known->process.name);
    }
    const Life* const parent = find(event.ppid);
    const bool isOfKernel = parent != nullptr && parent->process.isKernelThread;
    const std::string name(FieldText(event.comm));
    Life& life = lives[event.pid];
    life.process.pid = event.pid;
    life.process.ppid = event.ppid;
    life.process.uid = event.uid;
    life.process.name = name;
    life.process.isKernelThread = isOfKernel;
    life.process.threads = 1;
    life.process.startTime = life.knownSince = life.lastTime = life.threadsTime = time;
    life.isNameRead = false;
    trace.addFork(time, event.ppid, event.pid, name);
    trace.addCounter(time, event.pid, THREADS, 1);
}

void TraceExport::apply(const RawTaskExitEvent& event, int64_t time) {
    if (event.taskType == RAW_TASK_THREAD) {
        countThread(event.pid, time, -1);
    }
    const Life* const life = find(event.pid);
    // An exit before the start was that of an earlier process of this number.
    if (event.taskType != RAW_TASK_PROCESS || life == nullptr ||
        time < life->process.startTime - START_TOLERANCE) {
        return;
    }
    // The record has the name of the thread that ended last.
    const bool isItsName = !life->isNameRead || !life->hadThreads;
    end(event.pid, time, isItsName ? FieldText(event.comm) : life->process.name);
}

void TraceExport::countThread(int32_t pid, int64_t time, int32_t change) {
    Life* const life = findAt(pid, time);
    if (life == nullptr || time <= life->threadsTime) {
        return;
    }
    int32_t& threads = life->process.threads;
    threads = std::max(threads + change, 1);
    life->threadsTime = time;
    life->hadThreads = true;
    trace.addCounter(time, pid, THREADS, threads);
}

void TraceExport::apply(const RawRssStatEvent& event, int64_t time) {
    if (event.member < 0 || event.member >= RSS_MEMBER_COUNT || event.size < 0) {
        return;
    }
    if (Life* const life = findAt(event.pid, time)) {
        life->process.memory[static_cast<size_t>(event.member)] = event.size;
        trace.addSize(time, event.pid, event.member, event.size);
    }
}

void TraceExport::apply(const RawDmabufAllocEvent& event, int64_t time) {
    Life* const life = findAt(event.pid, time);
    if (life != nullptr && event.size >= 0) {
        life->dmabufSize = event.size;
        trace.addDmabufSize(time, event.pid, event.size);
    }
}

void TraceExport::apply(const RawFdUpdateEvent& event, int64_t time) {
    if (Life* const life = findAt(event.pid, time)) {
        life->process.openFds = event.openFds;
        trace.addCounter(time, event.pid, OPEN_FDS, event.openFds);
    }
}

void TraceExport::apply(const RecordsLostNotification& event, int64_t time) {
    const char* const ring = RingName(event.ring);
    trace.addLoss(time, StringPrintf("%llu records lost (%s ring)",
                                     static_cast<unsigned long long>(event.lost),
                                     ring != nullptr ? ring : "unknown"));
}

void TraceExport::apply(const RecordedNews& news, int64_t time) {
    if (news.state == STATE_SUBSCRIBED && gap) {
        gap.reset();
        trace.endGap(time);
    } else if (news.state == STATE_REFUSED) {
        trace.addLoss(time, "the service does not send type " + std::to_string(news.eventType));
    } else if ((news.state == STATE_LOST || news.state == STATE_WAITING) && !gap) {
        gap = "no connection to the service" + (news.reason.empty() ? "" : ": " + news.reason);
        trace.beginGap(time, *gap);
    }
}

void TraceExport::apply(const RecordedSnapshot& snapshot) {
    endMissing();
    for (const ProcessSnapshot& found : snapshot.processes) {
        Life* life = find(found.pid);
        if (HasExited(found) ||
            (life != nullptr && found.startTime < life->process.startTime - START_TOLERANCE)) {
            continue;  // its exit was told, or is about to be
        }
        int64_t time = found.readTime;
        if (life != nullptr && found.startTime > life->process.startTime + START_TOLERANCE) {
            // Another one: an exit and a fork were not told.
            time = std::max(time, end(found.pid, snapshot.begin, life->process.name) + 1);
            life = nullptr;
        }
        if (life == nullptr) {
            life = &lives[found.pid];
            life->process = found;
            life->knownSince = life->lastTime = life->threadsTime = time;
            life->hadThreads = found.threads > 1;
            announce(*life, time);
        } else {
            update(life, found);
            trace.addMemory(life->lastTime, found.pid, found.memory);
        }
        life->seenInProc = snapshot.begin;
    }
    missingSince = snapshot.begin;
    missingDue = snapshot.end + EXIT_DELAY;
    for (const auto& [pid, life] : lives) {
        if (life.seenInProc != snapshot.begin && life.process.startTime < snapshot.begin) {
            missing.push_back(pid);
        }
    }
}

void TraceExport::apply(const RecordedRefresh& refresh) {
    for (const ProcessSnapshot& found : refresh.processes) {
        Life* const life = find(found.pid);
        if (life != nullptr && !HasExited(found) &&
            std::abs(found.startTime - life->process.startTime) <= START_TOLERANCE) {
            update(life, found);
        }
    }
}

// All that is known of a process of which the trace knows nothing yet.
void TraceExport::announce(const Life& life, int64_t time) {
    const ProcessSnapshot& process = life.process;
    trace.addProcess(time, process);
    trace.addMemory(time, process.pid, process.memory);
    trace.addCounter(time, process.pid, THREADS, process.threads);
    if (process.openFds) {
        trace.addCounter(time, process.pid, OPEN_FDS, *process.openFds);
    }
    if (life.dmabufSize) {
        trace.addDmabufSize(time, process.pid, *life.dmabufSize);
    }
}

// What /proc has of a process that the trace has.
void TraceExport::update(Life* life, const ProcessSnapshot& snapshot) {
    ProcessSnapshot& process = life->process;
    const int64_t time = life->lastTime = std::max(snapshot.readTime, life->lastTime);
    if (!std::exchange(life->isNameRead, true) || process.name != snapshot.name ||
        process.uid != snapshot.uid) {
        const std::string before = std::exchange(process.name, snapshot.name);
        process.uid = snapshot.uid;
        process.isKernelThread = snapshot.isKernelThread;
        // An orphan has other parents in /proc than in the trace.
        if (const Life* const parent = find(process.ppid);
            parent != nullptr && parent->process.startTime <= process.startTime) {
            trace.addProcess(time, process);
        } else {
            trace.addRename(time, process.pid, before, process.name);
        }
    }
    process.memory = snapshot.memory;
    if (snapshot.readTime > life->threadsTime && process.threads != snapshot.threads) {
        process.threads = snapshot.threads;
        life->threadsTime = snapshot.readTime;
        trace.addCounter(time, process.pid, THREADS, process.threads);
    }
    if (snapshot.openFds && process.openFds != snapshot.openFds) {
        process.openFds = snapshot.openFds;
        trace.addCounter(time, process.pid, OPEN_FDS, *process.openFds);
    }
}

// name: which it had in the end. Returns when the trace has it.
int64_t TraceExport::end(int32_t pid, int64_t time, std::string_view name) {
    const auto found = lives.find(pid);
    const Life& life = found->second;
    time = std::max(time, life.lastTime);
    if (name != life.process.name) {
        trace.addRename(time, pid, life.process.name, name);
    }
    trace.addEnd(time, pid, name);
    lives.erase(found);
    return time;
}

void TraceExport::endMissing() {
    missingDue = INT64_MAX;
    for (const int32_t pid : std::exchange(missing, {})) {
        const Life* const life = find(pid);
        if (life != nullptr && life->process.startTime < missingSince) {
            end(pid, missingSince, life->process.name);
        }
    }
}

}  // namespace Tesu::Bpf
