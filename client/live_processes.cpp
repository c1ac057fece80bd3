// SPDX-License-Identifier: Apache-2.0
#include "client/live_processes.h"

#include <sys/eventfd.h>

#include <optional>
#include <utility>

#include "records/raw_event.h"
#include "util/monotonic_clock.h"

namespace Tesu::Bpf {

namespace {

// What a refresh reads of single processes at most.
constexpr size_t REREADS_PER_REFRESH = 64;

}  // namespace

LiveProcesses::LiveProcesses(const std::string& socketName, const std::string& procRoot)
    : wakeFd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)), reader(procRoot) {
    stream = std::make_unique<EventStream>(
        socketName,
        std::vector<int>{RAW_EVENT_TASK_INIT, RAW_EVENT_RSS_STAT, RAW_EVENT_TASK_CREATE,
                         RAW_EVENT_TASK_EXIT, RAW_EVENT_FD_UPDATE},
        makeListener());
}

bool LiveProcesses::start() {
    if (wakeFd.get() == -1) {
        return false;
    }
    stream->start();
    return true;
}

EventStreamListener LiveProcesses::makeListener() {
    EventStreamListener listener;
    listener.event = [this](const char* data, uint32_t size) {
        batch.push_back(DecodeEvent(data, size));
    };
    listener.batchEnd = [this] { onBatchEnd(); };
    listener.connected = [this] { setConnection(Connection::CONNECTED); };
    listener.subscribed = [this] {
        isSnapshotWanted = true;
        wake();
    };
    listener.refused = [this](int /*eventType*/) { setConnection(Connection::REFUSED); };
    listener.lost = [this] { setConnection(Connection::LOST); };
    listener.waiting = [this] {
        if (connectionState != Connection::LOST) {
            setConnection(Connection::NO_SERVICE);
        }
    };
    return listener;
}

void LiveProcesses::onBatchEnd() {
    if (batch.empty()) {
        return;
    }
    {
        const std::lock_guard lock(modelMutex);
        for (const Event& event : batch) {
            model.apply(event);
        }
    }
    batch.clear();
    wake();
}

void LiveProcesses::setConnection(Connection state) {
    connectionState = state;
    wake();
}

// One write for all the news between two refreshes.
void LiveProcesses::wake() {
    if (!isWoken.exchange(true)) {
        eventfd_write(wakeFd.get(), 1);
    }
}

bool LiveProcesses::refresh() {
    eventfd_t count = 0;
    eventfd_read(wakeFd.get(), &count);
    isWoken = false;
    bool isWanted = isSnapshotWanted.exchange(false);
    {
        const std::lock_guard lock(modelMutex);
        model.advanceTo(MonotonicNanoseconds());
        isWanted = isWanted || model.wantsSnapshot(MonotonicNanoseconds());
    }
    // Until there is a service, and without one, /proc is all there is.
    if (isWanted || !hasSnapshot) {
        return readEverything();
    }
    readSettled();
    return true;
}

bool LiveProcesses::readEverything() {
    {
        const std::lock_guard lock(modelMutex);
        model.beginSnapshot(MonotonicNanoseconds());
    }
    std::vector<ProcessSnapshot> processes;
    if (!reader.readAll(&processes)) {
        return false;
    }
    const std::lock_guard lock(modelMutex);
    model.finishSnapshot(processes);
    hasSnapshot = true;
    return true;
}

void LiveProcesses::readSettled() {
    std::vector<int32_t> pids;
    {
        const std::lock_guard lock(modelMutex);
        pids = model.takeRereads(MonotonicNanoseconds(), REREADS_PER_REFRESH);
    }
    if (pids.empty()) {
        return;
    }
    std::vector<std::pair<int32_t, std::optional<ProcessSnapshot>>> answers;
    answers.reserve(pids.size());
    for (const int32_t pid : pids) {
        answers.emplace_back(pid, reader.read(pid));
    }
    const std::lock_guard lock(modelMutex);
    for (const auto& [pid, process] : answers) {
        model.applyReread(pid, process);
    }
}

ProcessView LiveProcesses::view(const ViewRequest& request) {
    const std::lock_guard lock(modelMutex);
    return model.view(request);
}

}  // namespace Tesu::Bpf
