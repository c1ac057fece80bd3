// SPDX-License-Identifier: Apache-2.0
//
// Who subscribed to what, and the fan-out of each event to the queues of its subscribers.
//
// The singleton is created on first use and never destroyed. Every operation takes
// tesuRawEventManagerLock, the outermost of all locks; AppendEvent holds it for the whole fan-out.
#pragma once

#include <atomic>
#include <functional>
#include <map>
#include <vector>

#include "ipc/ipc_package.h"
#include "util/export.h"
#include "util/mutex.h"

namespace Tesu::Bpf {

class TESU_API EventManager {
  public:
    // Outgoing queue of each connected client, by descriptor.
    using ClientQueues = std::map<int, IpcPackageManager>;

    static EventManager* GetInstance();

    // Where the queues are (not owned), and how to have the socket loop send what is queued for a
    // client: false when its connection is gone. The service's constructor says so.
    void setClientQueues(ClientQueues* queues, std::function<bool(int)> requestWrite = {});

    // The queue of a new client; whatever a former connection of that number left is dropped.
    // False when there was such a rest.
    bool addClient(int fd);
    // Forgets the client's subscriptions, then its queue with every unsent package.
    void removeClient(int fd);
    // Moves as many whole packages as fit from the client's queue into its write buffer.
    void fillWriteBuffer(int fd, BufferState* writeBuffer);

    void AddObserverEvent(int fd, int eventType);
    void DelObserverEvent(int fd, int eventType);
    void EraseObserver(int fd);

    // Queues a copy of the record (its type is its first 32-bit word) for every subscriber of its
    // type and has the socket loop send it. A subscriber whose connection is gone is forgotten. A
    // record under 4 bytes has no type and goes to nobody. Returns 0.
    int AppendEvent(const char* event, unsigned int size);

    static Mutex tesuRawEventManagerLock;

  private:
    EventManager() = default;
    void eraseObserver(int fd) REQUIRES(tesuRawEventManagerLock);
    void eraseClient(int fd) REQUIRES(tesuRawEventManagerLock);

    static std::atomic<EventManager*> instance;

    ClientQueues* clientPackageManagers GUARDED_BY(tesuRawEventManagerLock)
        PT_GUARDED_BY(tesuRawEventManagerLock) = nullptr;
    std::function<bool(int)> requestWrite GUARDED_BY(tesuRawEventManagerLock);
    // client -> types, type -> clients; both in order of subscription
    std::map<int, std::vector<int>> fdEvents GUARDED_BY(tesuRawEventManagerLock);
    std::map<int, std::vector<int>> eventFds GUARDED_BY(tesuRawEventManagerLock);
};

}  // namespace Tesu::Bpf
