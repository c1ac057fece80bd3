// SPDX-License-Identifier: Apache-2.0
//
// Byte streams over a local stream socket in the abstract namespace. In server mode it listens,
// accepts clients and gives each a read and a write buffer; in client mode it keeps one connection
// to such a server, trying again every 5 seconds. It knows nothing of packages: the owner's
// callbacks fill and drain the buffers.
//
// Lifecycle: construct -> start -> stop -> destroy. start() creates the socket on the loop thread;
// stop() refuses new clients at once and asks the loop to end; the destructor joins the loop and
// closes every socket. A class derived from this one calls shutdown() in its own destructor.
//
// Threads: the owner's callbacks run on the loop thread, `writeable` also on a thread that calls
// writeDataNow() or writeWhatFits(). These two, notifyNeedWriteData(), disconnect(), start() and
// stop() may be called from any thread; the rest belongs to the loop thread.
//
// One guard per connection covers its buffers: it is held while `readable` and `writeable` run, for
// they write into the buffers, and while the connection is closed; it is recursive, so both may
// call writeDataNow(). No lock is held while `connection` and `close` run.
#pragma once

#include <android-base/unique_fd.h>
#include <sched.h>
#include <sys/epoll.h>

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "ipc/buffer_state.h"
#include "ipc/epoll_manager.h"
#include "ipc/unix_socket.h"
#include "util/export.h"
#include "util/mutex.h"

// The owner's side of a UnixIpcManager. An empty callback switches its feature off: without
// `readable` a connection has no read buffer and is not read, without `writeable` no write buffer.
struct IpcHandlerState {
    // Move unconsumed bytes to the front of the read buffer before each receive.
    bool saveUnuseBuffer = false;
    // Close the connection when receiving or `readable` fails.
    bool closeOnError = false;
    // Kept for callers that set it; read by nobody.
    bool reserved = false;
    // Bytes have arrived in the read buffer; a reply may be appended to the write buffer. -1: the
    // connection's buffers are emptied and, with closeOnError, it is closed without `close`.
    std::function<int(int fd, BufferState* readBuffer, BufferState* writeBuffer)> readable;
    // There is room to send: fill the write buffer. -1: failed.
    std::function<int(int fd, BufferState* writeBuffer)> writeable;
    // Whether an accepted client may stay; one that may not is closed at once.
    std::function<bool(int fd)> admit;
    std::function<void(int fd)> connection;
    // The other side hung up, or was closed for filling its buffer with no complete frame.
    std::function<void(int fd)> close;
};

// What became of a connection's output.
enum class IpcWriteResult {
    GONE,  // there is no such connection
    DONE,  // it is sent, or the loop is about to
    LEFT,  // there is more: to be tried again, or left to the loop by notifyNeedWriteData()
};

class TESU_API UnixIpcManager {
  public:
    // bufferSize: bytes of each buffer, and of the socket's own. name: log tag and loop thread
    // name, not copied. epollSize, maxEvents: see EpollManager.
    UnixIpcManager(bool isServer, int bufferSize, std::string socketName, IpcHandlerState handlers,
                   const char* name, cpu_set_t affinity, int epollSize, int maxEvents);
    // The loop thread takes the affinity of the constructing thread.
    UnixIpcManager(bool isServer, int bufferSize, std::string socketName, IpcHandlerState handlers,
                   const char* name, int epollSize, int maxEvents);
    UnixIpcManager(bool isServer, int bufferSize, std::string socketName, IpcHandlerState handlers,
                   int epollSize, int maxEvents);
    virtual ~UnixIpcManager();
    UnixIpcManager(const UnixIpcManager&) = delete;
    UnixIpcManager& operator=(const UnixIpcManager&) = delete;

    // Run on the loop thread when it starts and when the socket was lost. A name that is taken is
    // tried again every second.
    virtual bool createServer();
    // Returns false only after stop(), or when the connection could not be set up.
    virtual bool connect();

    bool start();
    bool stop();
    // Stops and joins the loop; afterwards no callback runs any more. Not from a callback.
    void shutdown();

    // Has the loop send what is queued for `fd` as soon as it can: 1, or 0 when `fd` is gone.
    int notifyNeedWriteData(int fd);
    // Sends on this thread what the socket takes without waiting, some buffers at most. Cheaper
    // than waking the loop for a connection that keeps up.
    IpcWriteResult writeWhatFits(int fd);
    // Has the loop close the connection soon, as if the other side had hung up; what was sent
    // before still arrives.
    void disconnect(int fd);
    // For hosts: sends on this thread until nothing is left: 1, or 0 on failure.
    int writeDataNow(int fd);
    // Sends data[cursor, length). False when the socket is full (after 11 tries) or broken; what
    // was not sent is then at the front of the buffer. The caller holds the connection's guard.
    bool ensureDataSend(int fd, BufferState* writeBuffer);

    bool allocateReadBufferForFd(int fd);
    bool allocateWriteBufferForFd(int fd);
    bool freeBufferForFd(int fd);
    bool clearAllBuffer();

    // Loop callbacks; results are EpollResult.
    int onServerReadableCallback(epoll_event event);
    int onServerCloseCallback(epoll_event event);
    int onClientReadableCallback(epoll_event event);
    int onCommWriteCallback(epoll_event event);
    int onClientCloseCallback(epoll_event event);

  private:
    using ConnectionMutex = std::recursive_mutex;
    // A held guard. It keeps its mutex alive when the connection is closed under it; without a
    // mutex there is no such connection.
    struct ConnectionGuard {
        std::shared_ptr<ConnectionMutex> mutex;
        std::unique_lock<ConnectionMutex> lock;
    };
    // One of the two below.
    using BufferMap = std::map<int, BufferState> UnixIpcManager::*;
    enum class ReceiveOutcome { HANDLED, NO_BUFFER, PEER_CLOSED, BUFFER_FULL, FAILED, REFUSED };

    // unix_ipc_manager.cpp
    bool tryToListen();
    bool watchListener() REQUIRES(socketMutex);
    bool openConnection(int fd, EpollCallback* callbacks);
    bool watchConnection(int fd, EpollCallback callbacks);
    void setSocketBufferSizes(int fd);
    int closeConnection(int fd);
    void reconnectIfLost(int fd, const char* message);
    void backOffAccept();
    bool hasRetryTimer();
    bool retryLater(int milliseconds);
    int onRetryTimer();

    // unix_ipc_stream.cpp
    ConnectionGuard lockConnection(int fd);
    std::shared_ptr<ConnectionMutex> findGuard(int fd) EXCLUDES(bufferMutex);
    BufferState* findBuffer(BufferMap buffers, int fd);
    bool allocateBuffer(BufferMap buffers, int fd, const char* direction);
    ReceiveOutcome receive(int fd);
    bool sendBuffered(int fd, BufferState* writeBuffer);
    bool disconnectIfBroken(int fd, ssize_t sent);

    std::string socketName;
    bool isServer;
    // No callback runs under it.
    Tesu::Bpf::Mutex socketMutex;
    // Taken under a connection's guard, never the other way round.
    Tesu::Bpf::Mutex bufferMutex;
    int bufferSize;
    // A buffer belongs to its connection's guard, which clang cannot check: the maps alone are
    // bufferMutex's.
    std::map<int, BufferState> readBuffers GUARDED_BY(bufferMutex);
    std::map<int, BufferState> writeBuffers GUARDED_BY(bufferMutex);
    // The guards; an entry for every open connection.
    std::map<int, std::shared_ptr<ConnectionMutex>> writeMutexes GUARDED_BY(bufferMutex);
    std::unique_ptr<EpollManager> epollManager;
    IpcHandlerState handlers;
    int socketFd GUARDED_BY(socketMutex) = -1;  // stop() closes it from any thread
    const char* name;
    std::atomic<bool> stopRequested{false};
    // Loop thread only: tries again what could not be done (listen, accept). What fails again in
    // the same way is not logged again.
    android::base::unique_fd retryTimer;
    int acceptError = 0;
    bool listenFailing = false;
    bool timerFailing = false;
};
