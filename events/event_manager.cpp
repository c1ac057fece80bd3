// SPDX-License-Identifier: Apache-2.0
#include "events/event_manager.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <new>
#include <utility>

#include "events/staged_events.h"
#include "ipc/peer_credentials.h"
#include "util/log.h"
#include "util/singleton.h"

namespace Tesu::Bpf {

namespace {

// A client that had no room so often is left to the transport, which waits for it.
constexpr unsigned MAX_TRIES = 8;

// Queued bytes with which a client may still ask for more.
constexpr size_t MAX_UNTAKEN_BYTES = 65536;

// Of this thread.
thread_local bool isBatchOpen = false;
thread_local StagedEvents stagedEvents;

}  // namespace

Mutex EventManager::tesuRawEventManagerLock;
std::atomic<EventManager*> EventManager::instance{nullptr};

EventManager* EventManager::GetInstance() {
    return GetOrMake(instance, tesuRawEventManagerLock, [] { return new EventManager(); });
}

EventManager::Batch::Batch() {
    isBatchOpen = true;
}

EventManager::Batch::~Batch() {
    isBatchOpen = false;
    GetInstance()->flush(stagedEvents);
}

void EventManager::setClientQueues(ClientQueues* queues, EventTransport newTransport) {
    MutexLock sendingLock(sendLock);
    MutexLock lock(tesuRawEventManagerLock);
    transport = std::move(newTransport);
    clientPackageManagers = queues;
    for (auto& [fd, observer] : fdEvents) {
        observer.queue = findQueue(fd);
    }
}

void EventManager::setLimits(EventLimits newLimits) {
    MutexLock lock(tesuRawEventManagerLock);
    limits = newLimits;
}

IpcPackageManager* EventManager::findQueue(int fd) {
    if (clientPackageManagers == nullptr) {
        return nullptr;
    }
    const auto queue = clientPackageManagers->find(fd);
    return queue == clientPackageManagers->end() ? nullptr : &queue->second;
}

bool EventManager::addClient(int fd) {
    ClientQueues::node_type rest;  // goes without the lock
    MutexLock lock(tesuRawEventManagerLock);
    rest = extractClient(fd);
    clientPackageManagers->try_emplace(fd);
    return rest.empty();
}

size_t EventManager::clientCount() {
    MutexLock lock(tesuRawEventManagerLock);
    return clientPackageManagers == nullptr ? 0 : clientPackageManagers->size();
}

std::vector<ClientState> EventManager::clientStates() {
    MutexLock lock(tesuRawEventManagerLock);
    std::vector<ClientState> states;
    if (clientPackageManagers == nullptr) {
        return states;
    }
    for (const auto& [fd, queue] : *clientPackageManagers) {
        ClientState& state = states.emplace_back();
        state.fd = fd;
        state.queue = queue.getState();
        if (const auto observer = fdEvents.find(fd); observer != fdEvents.end()) {
            state.types.assign(observer->second.types.begin(), observer->second.types.end());
        }
    }
    return states;
}

bool EventManager::mayAsk(int fd) {
    MutexLock lock(tesuRawEventManagerLock);
    IpcPackageManager* const queue = findQueue(fd);
    return queue != nullptr && queue->getState().queuedBytes < MAX_UNTAKEN_BYTES;
}

bool EventManager::respond(int fd, const std::vector<TesuRespIpcPackage>& responses) {
    MutexLock lock(tesuRawEventManagerLock);
    IpcPackageManager* const queue = findQueue(fd);
    return queue != nullptr &&
           std::all_of(responses.begin(), responses.end(), [&](const auto& response) {
               return queue->appendRespIpcPackage(&response);
           });
}

void EventManager::removeClient(int fd) {
    ClientQueues::node_type rest;  // goes without the lock
    MutexLock lock(tesuRawEventManagerLock);
    rest = extractClient(fd);
}

void EventManager::fillWriteBuffer(int fd, BufferState* writeBuffer) {
    MutexLock lock(tesuRawEventManagerLock);
    if (IpcPackageManager* const queue = findQueue(fd)) {
        queue->fillNextIpcPackagesToBuffer(writeBuffer);
    }
}

bool EventManager::AddObserverEvent(int fd, int eventType) {
    MutexLock lock(tesuRawEventManagerLock);
    try {
        Observer& observer =
            fdEvents.try_emplace(fd, Observer{fd, findQueue(fd), {}}).first->second;
        hasObservers = true;
        if (limits.clientTypes != 0 && observer.types.size() >= limits.clientTypes &&
            !observer.types.contains(eventType)) {
            return false;
        }
        observer.types.insert(eventType);
        regroup(observer);
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

void EventManager::DelObserverEvent(int fd, int eventType) {
    MutexLock lock(tesuRawEventManagerLock);
    const auto observer = fdEvents.find(fd);
    if (observer != fdEvents.end() && observer->second.types.erase(eventType) != 0) {
        regroup(observer->second);
        if (observer->second.types.empty()) {
            eraseObserver(fd);
        }
    }
}

void EventManager::EraseObserver(int fd) {
    MutexLock lock(tesuRawEventManagerLock);
    eraseObserver(fd);
}

void EventManager::eraseObserver(int fd) {
    if (auto observer = fdEvents.extract(fd)) {
        leaveAudience(observer.mapped());
    }
    hasObservers = !fdEvents.empty();
}

// Subscriptions first, so that nothing is queued for a client without a queue.
EventManager::ClientQueues::node_type EventManager::extractClient(int fd) {
    eraseObserver(fd);
    return clientPackageManagers == nullptr ? ClientQueues::node_type()
                                            : clientPackageManagers->extract(fd);
}

// Types that are appended for the first time: from now on they tell clients apart.
void EventManager::learnTypes(const std::vector<int32_t>& types) {
    for (const int32_t type : types) {
        if (!appendedTypes.insert(type).second) {
            continue;
        }
        for (auto& [fd, observer] : fdEvents) {
            if (observer.types.contains(type)) {
                regroup(observer);
            }
        }
    }
}

// Puts a client into the audience that it belongs to by now. Without memory it stays where it was.
void EventManager::regroup(Observer& observer) {
    std::vector<int32_t> wanted;
    std::set_intersection(observer.types.begin(), observer.types.end(), appendedTypes.begin(),
                          appendedTypes.end(), std::back_inserter(wanted));
    Audiences::value_type* const audience = &*audiences.try_emplace(std::move(wanted)).first;
    if (audience != observer.audience) {
        audience->second.members.push_back(&observer);
        leaveAudience(observer);
        observer.audience = audience;
    }
    std::erase_if(audiences, [](const auto& other) { return other.second.members.empty(); });
}

// An audience without members stays until somebody is grouped again: it may be in use.
void EventManager::leaveAudience(Observer& observer) {
    if (observer.audience != nullptr) {
        std::erase(observer.audience->second.members, &observer);
        observer.audience = nullptr;
    }
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
    stagedEvents.add(type, event, size);
    if (!isBatchOpen) {
        flush(stagedEvents);
        sendLater();
    } else if (stagedEvents.isFull()) {
        flush(stagedEvents);
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
    if (transport.disconnect) {
        transport.disconnect(fd);
    }
}

}  // namespace Tesu::Bpf
