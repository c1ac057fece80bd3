// SPDX-License-Identifier: Apache-2.0
//
// Who subscribed to what, and the fan-out of each event to the queues of its subscribers.
//
// The singleton is created on first use and never destroyed. Every operation takes
// tesuRawEventManagerLock; AppendEvent holds it for the whole fan-out. What was queued is sent
// without it, one thread at a time: under sendLock, the outermost of all locks.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <vector>

#include "ipc/ipc_package.h"
#include "ipc/unix_ipc_manager.h"
#include "util/export.h"
#include "util/mutex.h"

namespace Tesu::Bpf {

// How what is queued for a client gets to it.
struct EventTransport {
    // Sends what can be sent at once.
    std::function<IpcWriteResult(int fd)> send;
    // Has what is left sent by another thread: false when the connection is gone. Takes no lock
    // that may be held while tesuRawEventManagerLock is taken.
    std::function<bool(int fd)> sendLater;
};

class TESU_API EventManager {
  public:
    // Outgoing queue of each connected client, by descriptor.
    using ClientQueues = std::map<int, IpcPackageManager>;

    // While one lives, what its thread appends is sent together, at its end and every few hundred
    // records; without one, at once. What a client has no room for is tried again at the end of the
    // next, so a thread that is not about to make another calls sendLater(). They do not nest.
    class Batch {
      public:
        Batch();
        ~Batch();
        Batch(const Batch&) = delete;
        Batch& operator=(const Batch&) = delete;
    };

    static EventManager* GetInstance();

    // Where the queues are (not owned), and how they are emptied. The service's constructor says
    // so. On return nothing is sent the former way any more.
    void setClientQueues(ClientQueues* queues, EventTransport transport = {});

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
    // type and has it sent. A subscriber whose connection is gone is forgotten. A record under 4
    // bytes has no type and goes to nobody. Returns 0.
    int AppendEvent(const char* event, unsigned int size);

    // Leaves to the transport what the batches could not send so far.
    void sendLater();

    static Mutex tesuRawEventManagerLock;

  private:
    struct Observer {
        int fd;
        IpcPackageManager* queue;  // null: not connected
        std::vector<int> types;    // in order of subscription
        bool isDue = false;        // in `due`
        unsigned tries = 0;        // that left something, since it was last left to the transport
    };

    EventManager() = default;
    void queueEvent(int32_t type, const char* event, unsigned int size);
    void sendDue() EXCLUDES(sendLock);
    bool tryAgain(int fd) REQUIRES(tesuRawEventManagerLock);
    void leave(int fd) REQUIRES(sendLock, tesuRawEventManagerLock);
    IpcPackageManager* findQueue(int fd) REQUIRES(tesuRawEventManagerLock);
    void eraseObserver(int fd) REQUIRES(tesuRawEventManagerLock);
    void eraseClient(int fd) REQUIRES(tesuRawEventManagerLock);

    static std::atomic<EventManager*> instance;

    ClientQueues* clientPackageManagers GUARDED_BY(tesuRawEventManagerLock)
        PT_GUARDED_BY(tesuRawEventManagerLock) = nullptr;
    std::map<int, Observer> fdEvents GUARDED_BY(tesuRawEventManagerLock);
    // By type, in order of subscription; they point into fdEvents.
    std::map<int, std::vector<Observer*>> eventFds GUARDED_BY(tesuRawEventManagerLock);
    // Clients for which something was queued since it was sent last, each once.
    std::vector<int> due GUARDED_BY(tesuRawEventManagerLock);

    Mutex sendLock;
    EventTransport transport GUARDED_BY(sendLock);
    std::vector<int> sending GUARDED_BY(sendLock);  // kept for its memory
};

}  // namespace Tesu::Bpf
