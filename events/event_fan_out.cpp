// SPDX-License-Identifier: Apache-2.0
//
// The way of an event from who appends it to the clients' queues, and on to their sockets.
#include <algorithm>
#include <cstring>
#include <new>
#include <utility>

#include "events/event_manager.h"
#include "events/staged_events.h"
#include "ipc/peer_credentials.h"
#include "util/log.h"

namespace Tesu::Bpf {

namespace {

// A client that had no room so often is left to the transport, which waits for it.
constexpr unsigned MAX_TRIES = 8;

// Of this thread.
thread_local StagedEvents stagedEvents;
thread_local StagedEvents* openBatch = nullptr;  // those, while a batch is open

}  // namespace

EventManager::Batch::Batch() {
    openBatch = &stagedEvents;
}

EventManager::Batch::~Batch() {
    GetInstance()->flush(*std::exchange(openBatch, nullptr));
}

int EventManager::AppendEvent(const char* event, unsigned int size) {
    int32_t type = 0;
    if (size < sizeof(type) || !hasObservers.load(std::memory_order_acquire)) {
        return 0;
    }
    if (size > StagedEvents::MAX_EVENT_SIZE) {
        TESU_LOGE(TESU_LOG_UTILS, "[EventManager] event dropped: %u bytes, at most %u fit", size,
                  StagedEvents::MAX_EVENT_SIZE);
        return 0;
    }
    std::memcpy(&type, event, sizeof(type));
    StagedEvents* const batch = openBatch;
    StagedEvents& staged = batch != nullptr ? *batch : stagedEvents;
    staged.add(type, event, size);
    if (batch == nullptr) {
        flush(staged);
        sendLater();
    } else if (staged.isFull()) {
        flush(staged);
    }
    return 0;
}

void EventManager::flush(StagedEvents& staged) {
    MutexLock sendingLock(sendLock);
    if (!staged.isEmpty()) {
        handOut(staged);
        staged.clear();
    }
    sendDue();
}

void EventManager::handOut(StagedEvents& staged) {
    MutexLock lock(tesuRawEventManagerLock);
    try {
        learnTypes(staged.types());
    } catch (const std::bad_alloc&) {
        TESU_LOGE(TESU_LOG_UTILS, "[EventManager] no memory to group clients anew");
    }
    for (auto& audience : audiences) {
        if (staged.hasAny(audience.first)) {
            handOutTo(audience, staged);
        }
    }
    enforceLimits();
}

void EventManager::handOutTo(Audiences::value_type& entry, StagedEvents& staged) {
    auto& [types, audience] = entry;
    char* const frames = reserveFrames(audience.writer, staged.bytes());
    if (frames == nullptr) {
        for (Observer* const observer : audience.members) {
            if (observer->queue != nullptr) {
                observer->queue->countRefused(staged.count(types));
            }
        }
        return;
    }
    const StagedEvents::Copied copied = staged.copy(types, frames);
    const FrameRange range = audience.writer.commit(copied.bytes, copied.count);
    for (Observer* const observer : audience.members) {
        if (observer->queue != nullptr && observer->queue->appendFrames(range)) {
            markDue(*observer);
        }
    }
}

// Where memory has run out, clients that have most of it give it back.
char* EventManager::reserveFrames(FrameWriter& writer, size_t bytes) {
    char* frames = writer.reserve(bytes);
    while (frames == nullptr && disconnectHeaviest()) {
        frames = writer.reserve(bytes);
    }
    return frames;
}

void EventManager::markDue(Observer& observer) {
    if (observer.isDue) {
        return;
    }
    try {
        due.push_back(observer.fd);
        observer.isDue = true;
    } catch (const std::bad_alloc&) {
        transport.sendLater(observer.fd);
    }
}

// What becomes due again by this is left to the next time.
void EventManager::sendDue() {
    size_t count = 0;
    for (size_t i = 0;; ++i) {
        int fd = -1;
        {
            MutexLock lock(tesuRawEventManagerLock);
            count = i == 0 ? due.size() : count;
            if (i == count) {
                due.erase(due.begin(), due.begin() + static_cast<ptrdiff_t>(count));
                return;
            }
            fd = due[i];
            if (const auto found = fdEvents.find(fd); found != fdEvents.end()) {
                found->second.isDue = false;
            }
        }
        const auto result = transport.send ? transport.send(fd) : IpcWriteResult::DONE;
        if (result != IpcWriteResult::DONE) {
            MutexLock lock(tesuRawEventManagerLock);
            settle(fd, result);
        }
    }
}

// A client that had no room is tried again, but not for ever.
void EventManager::settle(int fd, IpcWriteResult result) {
    const auto found = fdEvents.find(fd);
    if (result == IpcWriteResult::GONE || found == fdEvents.end() ||
        ++found->second.tries >= MAX_TRIES) {
        leave(fd);
    } else {
        markDue(found->second);
    }
}

// A client that is gone is forgotten; its heir by number, which may have come meanwhile, is not.
void EventManager::leave(int fd) {
    if (transport.sendLater && !transport.sendLater(fd)) {
        extractClient(fd);
    } else if (const auto found = fdEvents.find(fd); found != fdEvents.end()) {
        found->second.tries = 0;
    }
}

void EventManager::sendLater() {
    MutexLock sendingLock(sendLock);
    MutexLock lock(tesuRawEventManagerLock);
    for (const int fd : due) {
        if (const auto found = fdEvents.find(fd); found != fdEvents.end()) {
            found->second.isDue = false;
        }
        leave(fd);
    }
    due.clear();
}

void EventManager::enforceLimits() {
    if (limits.clientBytes != 0) {
        for (const int fd : due) {
            const auto found = fdEvents.find(fd);
            if (found != fdEvents.end() && found->second.queue != nullptr &&
                found->second.queue->getState().queuedBytes > limits.clientBytes) {
                disconnect(found->second);
            }
        }
    }
    while (limits.totalBytes != 0 && FrameBlock::BytesInUse() > limits.totalBytes &&
           disconnectHeaviest()) {
    }
}

// False when nobody has anything queued.
bool EventManager::disconnectHeaviest() {
    Observer* heaviest = nullptr;
    size_t most = 0;
    for (auto& [fd, observer] : fdEvents) {
        const size_t bytes = observer.queue == nullptr ? 0 : observer.queue->getState().queuedBytes;
        if (bytes > most) {
            most = bytes;
            heaviest = &observer;
        }
    }
    if (heaviest != nullptr) {
        disconnect(*heaviest);
    }
    return heaviest != nullptr;
}

// Its memory goes at once, the connection when the transport comes to it.
void EventManager::disconnect(Observer& observer) {
    const int fd = observer.fd;
    const IpcQueueState state = observer.queue->getState();
    const ucred peer = PeerCredentials(fd);
    TESU_LOGW(
        TESU_LOG_UTILS,
        "[EventManager] client %d (pid %d, uid %u) is too slow and is disconnected: %zu bytes "
        "in %llu packages were queued",
        fd, peer.pid, peer.uid, state.queuedBytes,
        static_cast<unsigned long long>(state.queuedPackages));
    extractClient(fd);
    hasDisconnected = true;
    if (transport.disconnect) {
        transport.disconnect(fd);
    }
}

}  // namespace Tesu::Bpf
