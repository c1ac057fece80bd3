// SPDX-License-Identifier: Apache-2.0
//
// The service's events as they happen: keeps a connection to the service, subscribes to the wanted
// types each time it is made, and hands out what comes, one item at a time.
//
//   open -> (poll descriptor -> next until NOTHING)... -> destroy
//
// It never blocks, has no thread and logs nothing; the caller's poll loop drives it. Without a
// service it tries again every 5 seconds, and for the first time a second after a connection was
// lost. Events of the time between are not made up for.
#pragma once

#include <android-base/unique_fd.h>

#include <chrono>
#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "ipc/buffer_state.h"
#include "ipc/frame_reader.h"
#include "util/result.h"

namespace Tesu::Bpf {

struct ConnectionItem {
    enum Kind {
        NOTHING,    // for now; poll before the next call
        CONNECTED,  // the subscriptions are on their way
        WAITING,  // nobody listens under the service's name; said once until there is a connection
        SUBSCRIBED,  // every subscription of this connection was answered: from now on every event
                     // of the accepted types comes
        REFUSED,     // the service refused the subscription to `eventType`
        EVENT,       // the `size` bytes at `data` are a record or a notification
        MALFORMED,   // the other side sends what is no stream of frames, see `reason`; LOST follows
        LOST,        // the connection is gone, CONNECTED came for it; `reason` where it is known
    };

    Kind kind = NOTHING;
    int eventType = 0;
    // May be unaligned; valid until the following next().
    const char* data = nullptr;
    uint32_t size = 0;
    std::string reason = {};
};

// Used by one thread at a time.
class ServiceConnection {
  public:
    // Connects with the first next(). Fails when the system has no descriptor left.
    static Result<ServiceConnection> open(std::string socketName, std::vector<int> eventTypes);

    // Readable (POLLIN) when next() may have an item. Borrowed, the same for life.
    int descriptor() const { return epoll.get(); }

    // The next item, in the order in which things happened. Says NOTHING at least once for each
    // buffer received, so that a caller with more descriptors gets round to them; what is left
    // keeps the descriptor readable.
    ConnectionItem next();

  private:
    ServiceConnection(std::string socketName, std::vector<int> eventTypes);

    ConnectionItem tryToConnect();
    void sendRequests();
    ConnectionItem onPackage(const Package& package);
    bool receive();
    void lose();
    std::string whyClosed() const;
    bool watch(int fd, int operation, uint32_t events);
    void retryIn(std::chrono::seconds pause);

    std::string socketName;
    std::vector<int> eventTypes;
    // Holds the timer and, while there is a connection, the socket.
    android::base::unique_fd epoll;
    android::base::unique_fd retryTimer;
    bool isWaiting = false;  // WAITING was said
    // An item that followed from the same cause as the one before it; NOTHING: none.
    ConnectionItem::Kind following = ConnectionItem::NOTHING;

    // Of the current connection.
    android::base::unique_fd socket;
    std::string unsent;
    std::set<uint32_t> unanswered;  // ids of requests: the event types
    std::vector<char> storage;
    BufferState received;  // over `storage`
    bool mayReceive = true;
};

}  // namespace Tesu::Bpf
