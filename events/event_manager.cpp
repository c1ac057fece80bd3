// SPDX-License-Identifier: Apache-2.0
#include "events/event_manager.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <utility>

#include "util/singleton.h"

namespace Tesu::Bpf {

namespace {

// A thread that never comes to the end of its batch sends after so many records: some 20 KiB, which
// fit a connection's write buffer.
constexpr unsigned RECORDS_PER_SEND = 512;
// A client that had no room so often is left to the transport, which waits for it.
constexpr unsigned MAX_TRIES = 8;

// Of this thread's batch: whether there is one, and what was queued since it was sent last.
thread_local bool isBatchOpen = false;
thread_local unsigned batchedRecords = 0;

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
    batchedRecords = 0;
    GetInstance()->sendDue();
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

IpcPackageManager* EventManager::findQueue(int fd) {
    if (clientPackageManagers == nullptr) {
        return nullptr;
    }
    const auto queue = clientPackageManagers->find(fd);
    return queue == clientPackageManagers->end() ? nullptr : &queue->second;
}

bool EventManager::addClient(int fd) {
    MutexLock lock(tesuRawEventManagerLock);
    const bool fresh = clientPackageManagers->find(fd) == clientPackageManagers->end();
    eraseClient(fd);
    clientPackageManagers->try_emplace(fd);
    return fresh;
}

void EventManager::removeClient(int fd) {
    MutexLock lock(tesuRawEventManagerLock);
    eraseClient(fd);
}

void EventManager::fillWriteBuffer(int fd, BufferState* writeBuffer) {
    MutexLock lock(tesuRawEventManagerLock);
    if (IpcPackageManager* const queue = findQueue(fd)) {
        queue->fillNextIpcPackagesToBuffer(writeBuffer);
    }
}

void EventManager::AddObserverEvent(int fd, int eventType) {
    MutexLock lock(tesuRawEventManagerLock);
    Observer& observer = fdEvents.try_emplace(fd, Observer{fd, findQueue(fd), {}}).first->second;
    if (std::find(observer.types.begin(), observer.types.end(), eventType) ==
        observer.types.end()) {
        observer.types.push_back(eventType);
        eventFds[eventType].push_back(&observer);
    }
}

void EventManager::DelObserverEvent(int fd, int eventType) {
    MutexLock lock(tesuRawEventManagerLock);
    const auto observer = fdEvents.find(fd);
    if (observer != fdEvents.end()) {
        std::erase(eventFds[eventType], &observer->second);
        std::erase(observer->second.types, eventType);
    }
}

void EventManager::EraseObserver(int fd) {
    MutexLock lock(tesuRawEventManagerLock);
    eraseObserver(fd);
}

void EventManager::eraseObserver(int fd) {
    if (auto observer = fdEvents.extract(fd)) {
        for (const int type : observer.mapped().types) {
            std::erase(eventFds[type], &observer.mapped());
        }
    }
}

// Subscriptions first, so that nothing is queued for a client without a queue.
void EventManager::eraseClient(int fd) {
    eraseObserver(fd);
    if (clientPackageManagers != nullptr) {
        clientPackageManagers->erase(fd);
    }
}

int EventManager::AppendEvent(const char* event, unsigned int size) {
    int32_t type = 0;
    if (size < sizeof(type)) {
        return 0;
    }
    std::memcpy(&type, event, sizeof(type));
    queueEvent(type, event, size);
    if (!isBatchOpen) {
        sendDue();
        sendLater();
    } else if (++batchedRecords == RECORDS_PER_SEND) {
        batchedRecords = 0;
        sendDue();
    }
    return 0;
}

void EventManager::queueEvent(int32_t type, const char* event, unsigned int size) {
    MutexLock lock(tesuRawEventManagerLock);
    const auto observers = eventFds.find(type);
    if (observers == eventFds.end()) {
        return;
    }
    for (Observer* const observer : observers->second) {
        if (observer->queue != nullptr &&
            observer->queue->buildAndAppendSecondIpcPackage(IPC_PACKAGE_EVENT, event, size) &&
            !std::exchange(observer->isDue, true)) {
            due.push_back(observer->fd);
        }
    }
}

// What is appended meanwhile is due again.
void EventManager::sendDue() {
    MutexLock sendingLock(sendLock);
    {
        MutexLock lock(tesuRawEventManagerLock);
        sending.swap(due);
        for (const int fd : sending) {
            const auto observer = fdEvents.find(fd);
            if (observer != fdEvents.end()) {
                observer->second.isDue = false;
            }
        }
    }
    for (const int fd : sending) {
        const auto result = transport.send ? transport.send(fd) : IpcWriteResult::DONE;
        if (result != IpcWriteResult::DONE) {
            MutexLock lock(tesuRawEventManagerLock);
            if (result == IpcWriteResult::GONE || !tryAgain(fd)) {
                leave(fd);
            }
        }
    }
    sending.clear();
}

// False when it has been tried often enough.
bool EventManager::tryAgain(int fd) {
    const auto found = fdEvents.find(fd);
    if (found == fdEvents.end() || ++found->second.tries >= MAX_TRIES) {
        return false;
    }
    if (!std::exchange(found->second.isDue, true)) {
        due.push_back(fd);
    }
    return true;
}

// A client that is gone is forgotten; its heir by number, which may have come meanwhile, is not.
void EventManager::leave(int fd) {
    if (transport.sendLater && !transport.sendLater(fd)) {
        eraseClient(fd);
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

}  // namespace Tesu::Bpf
