// SPDX-License-Identifier: Apache-2.0
//
// Who subscribed to what, and the fan-out of each event to the queues of its subscribers.
//
// An event is staged by the thread that appends it, without a lock, and handed out with the others
// of its batch: clients that want the same types form an audience, for which the frames are written
// once, and each member's queue gets a reference to them.
//
// The singleton is created on first use and never destroyed. Every operation takes
// tesuRawEventManagerLock, never for longer than a batch is handed out. What was queued is sent
// without it, one thread at a time: under sendLock, the outermost of all locks.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <vector>

#include "ipc/ipc_package.h"
#include "ipc/unix_ipc_manager.h"
#include "util/export.h"
#include "util/mutex.h"

namespace Tesu::Bpf {

class StagedEvents;

// How what is queued for a client gets to it. The last two take no lock that may be held while
// tesuRawEventManagerLock is taken.
struct EventTransport {
    // Sends what can be sent at once.
    std::function<IpcWriteResult(int fd)> send;
    // Has what is left sent by another thread: false when the connection is gone.
    std::function<bool(int fd)> sendLater;
    // Has the connection closed by another thread, soon.
    std::function<void(int fd)> disconnect;
};

// What a client may cost; 0: without limit.
struct EventLimits {
    size_t clientBytes = 0;  // queued for one
    size_t totalBytes = 0;   // memory of all queues
    size_t clientTypes = 0;  // subscriptions of one
};

// A connected client, as it stands.
struct ClientState {
    int fd = -1;
    IpcQueueState queue;
    std::vector<int32_t> types;  // subscriptions
};

class TESU_API EventManager {
  public:
    // Outgoing queue of each connected client, by descriptor.
    using ClientQueues = std::map<int, IpcPackageManager>;

    // While one lives, what its thread appends is handed out together, at its end and whenever it
    // is enough for a send; without one, at once. What a client has no room for is tried again at
    // the end of the next, so a thread that is not about to make another calls sendLater(). They do
    // not nest.
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
    void setLimits(EventLimits newLimits);

    // The queue of a new client; whatever a former connection of that number left is dropped.
    // False when there was such a rest.
    bool addClient(int fd);
    size_t clientCount();
    std::vector<ClientState> clientStates();
    // Whether a client was disconnected for what it cost since this was asked last: there may be
    // much memory to return.
    bool takeHasDisconnected() { return hasDisconnected.exchange(false); }
    // False for a client that has not taken what was queued for it so far: what it asks for is not
    // worth the work.
    bool mayAsk(int fd);
    // Queues responses for a client; the caller has them sent. False when there was no memory.
    bool respond(int fd, const std::vector<TesuRespIpcPackage>& responses);
    // Forgets the client's subscriptions, then its queue with every unsent package.
    void removeClient(int fd);
    // Moves as many whole packages as fit from the client's queue into its write buffer.
    void fillWriteBuffer(int fd, BufferState* writeBuffer);

    // False when the client has as many subscriptions as it may, or there is no memory for it.
    bool AddObserverEvent(int fd, int eventType);
    void DelObserverEvent(int fd, int eventType);
    void EraseObserver(int fd);

    // Queues a copy of the record (its type is its first 32-bit word) for every subscriber of its
    // type and has it sent. A subscriber whose connection is gone is forgotten. A record under 4
    // bytes has no type and goes to nobody; one that fits no write buffer is logged and dropped.
    // Returns 0.
    int AppendEvent(const char* event, unsigned int size);

    // Leaves to the transport what the batches could not send so far.
    void sendLater();

    static Mutex tesuRawEventManagerLock;

  private:
    struct Observer;
    // Clients that get the same events, and where their frames are written.
    struct Audience {
        std::vector<Observer*> members;
        FrameWriter writer;
    };
    // By the types, in ascending order.
    using Audiences = std::map<std::vector<int32_t>, Audience>;
    struct Observer {
        int fd;
        IpcPackageManager* queue;  // null: not connected
        std::set<int32_t> types;
        Audiences::value_type* audience = nullptr;
        bool isDue = false;  // in `due`
        unsigned tries = 0;  // that left something, since it was last left to the transport
    };

    EventManager() = default;
    void flush(StagedEvents& staged) EXCLUDES(sendLock, tesuRawEventManagerLock);
    void handOut(StagedEvents& staged) REQUIRES(sendLock) EXCLUDES(tesuRawEventManagerLock);
    void handOutTo(Audiences::value_type& audience, StagedEvents& staged)
        REQUIRES(sendLock, tesuRawEventManagerLock);
    char* reserveFrames(FrameWriter& writer, size_t bytes)
        REQUIRES(sendLock, tesuRawEventManagerLock);
    void markDue(Observer& observer) REQUIRES(sendLock, tesuRawEventManagerLock);
    void sendDue() REQUIRES(sendLock) EXCLUDES(tesuRawEventManagerLock);
    void settle(int fd, IpcWriteResult result) REQUIRES(sendLock, tesuRawEventManagerLock);
    void leave(int fd) REQUIRES(sendLock, tesuRawEventManagerLock);

    void enforceLimits() REQUIRES(sendLock, tesuRawEventManagerLock);
    bool disconnectHeaviest() REQUIRES(sendLock, tesuRawEventManagerLock);
    void disconnect(Observer& observer) REQUIRES(sendLock, tesuRawEventManagerLock);

    void learnTypes(const std::vector<int32_t>& types) REQUIRES(tesuRawEventManagerLock);
    void regroup(Observer& observer) REQUIRES(tesuRawEventManagerLock);
    void leaveAudience(Observer& observer) REQUIRES(tesuRawEventManagerLock);
    IpcPackageManager* findQueue(int fd) REQUIRES(tesuRawEventManagerLock);
    void eraseObserver(int fd) REQUIRES(tesuRawEventManagerLock);
    ClientQueues::node_type extractClient(int fd) REQUIRES(tesuRawEventManagerLock);

    static std::atomic<EventManager*> instance;

    ClientQueues* clientPackageManagers GUARDED_BY(tesuRawEventManagerLock)
        PT_GUARDED_BY(tesuRawEventManagerLock) = nullptr;
    EventLimits limits GUARDED_BY(tesuRawEventManagerLock);
    // Those that subscribed to something.
    std::map<int, Observer> fdEvents GUARDED_BY(tesuRawEventManagerLock);
    std::atomic<bool> hasObservers{false};
    std::atomic<bool> hasDisconnected{false};
    // Of all types that clients subscribed to, only those that were ever appended make audiences
    // differ: their number is the host's affair and not a client's.
    std::set<int32_t> appendedTypes GUARDED_BY(tesuRawEventManagerLock);
    Audiences audiences GUARDED_BY(tesuRawEventManagerLock);
    // Clients for which something was queued since it was sent last, each once.
    std::vector<int> due GUARDED_BY(tesuRawEventManagerLock);

    Mutex sendLock;
    EventTransport transport GUARDED_BY(sendLock);
};

}  // namespace Tesu::Bpf
