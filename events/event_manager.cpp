// SPDX-License-Identifier: Apache-2.0
//
// Clients, their subscriptions and audiences. What happens to an event is event_fan_out.cpp's.
#include "events/event_manager.h"

#include <algorithm>
#include <iterator>
#include <new>
#include <utility>

#include "util/singleton.h"

namespace Tesu::Bpf {

namespace {

// Queued bytes with which a client may still ask for more.
constexpr size_t MAX_UNTAKEN_BYTES = 65536;

}  // namespace

Mutex EventManager::tesuRawEventManagerLock;
std::atomic<EventManager*> EventManager::instance{nullptr};

EventManager* EventManager::GetInstance() {
    return GetOrMake(instance, tesuRawEventManagerLock, [] { return new EventManager(); });
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
        try {
            for (auto& [fd, observer] : fdEvents) {
                if (observer.types.contains(type)) {
                    regroup(observer);
                }
            }
        } catch (...) {
            appendedTypes.erase(type);  // to be learnt with the next batch
            throw;
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

}  // namespace Tesu::Bpf
