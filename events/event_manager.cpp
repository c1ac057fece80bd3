// SPDX-License-Identifier: Apache-2.0
#include "events/event_manager.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <utility>

#include "util/singleton.h"

namespace Tesu::Bpf {

Mutex EventManager::tesuRawEventManagerLock;
std::atomic<EventManager*> EventManager::instance{nullptr};

EventManager* EventManager::GetInstance() {
    return GetOrMake(instance, tesuRawEventManagerLock, [] { return new EventManager(); });
}

void EventManager::setClientQueues(ClientQueues* queues, std::function<bool(int)> request) {
    MutexLock lock(tesuRawEventManagerLock);
    clientPackageManagers = queues;
    requestWrite = std::move(request);
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
    const auto queue = clientPackageManagers->find(fd);
    if (queue == clientPackageManagers->end()) {
        return;
    }
    while (queue->second.fillNextIpcPackageToBuffer(writeBuffer)) {
    }
}

void EventManager::AddObserverEvent(int fd, int eventType) {
    MutexLock lock(tesuRawEventManagerLock);
    std::vector<int>& types = fdEvents[fd];
    if (std::find(types.begin(), types.end(), eventType) == types.end()) {
        types.push_back(eventType);
        eventFds[eventType].push_back(fd);
    }
}

void EventManager::DelObserverEvent(int fd, int eventType) {
    MutexLock lock(tesuRawEventManagerLock);
    std::erase(eventFds[eventType], fd);
    std::erase(fdEvents[fd], eventType);
}

void EventManager::EraseObserver(int fd) {
    MutexLock lock(tesuRawEventManagerLock);
    eraseObserver(fd);
}

void EventManager::eraseObserver(int fd) {
    if (const auto types = fdEvents.extract(fd)) {
        for (const int type : types.mapped()) {
            std::erase(eventFds[type], fd);
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

    MutexLock lock(tesuRawEventManagerLock);
    const auto subscribers = eventFds.find(type);
    if (subscribers == eventFds.end() || subscribers->second.empty() ||
        clientPackageManagers == nullptr) {
        return 0;
    }
    for (const int fd : subscribers->second) {
        const auto queue = clientPackageManagers->find(fd);
        if (queue != clientPackageManagers->end()) {
            queue->second.buildAndAppendSecondIpcPackage(IPC_PACKAGE_EVENT, event, size);
        }
    }
    if (!requestWrite) {
        return 0;
    }
    std::vector<int> gone;
    for (const int fd : subscribers->second) {
        if (!requestWrite(fd)) {
            gone.push_back(fd);
        }
    }
    // A connection that was dropped after an error, of which nobody told.
    for (const int fd : gone) {
        eraseClient(fd);
    }
    return 0;
}

}  // namespace Tesu::Bpf
