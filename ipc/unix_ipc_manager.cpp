// SPDX-License-Identifier: Apache-2.0
//
// Sockets and connections: how they come, how they go. The bytes are unix_ipc_stream.cpp's.
#include "ipc/unix_ipc_manager.h"

#include <sys/socket.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <new>
#include <utility>

#include "util/log.h"

using Tesu::Bpf::MutexLock;

namespace {

constexpr int RECONNECT_INTERVAL_MS = 5000;
// How long a name that is taken, or a lack of descriptors, is left alone.
constexpr int LISTEN_RETRY_MS = 1000;
constexpr int ACCEPT_RETRY_MS = 200;

// accept() failures after which trying again at once does not spin: there is nobody to accept, or
// it was the client's. All others leave the listening socket readable.
bool IsPassing(int error) {
    return error == EAGAIN || error == EINTR || error == ECONNABORTED;
}

}  // namespace

UnixIpcManager::UnixIpcManager(bool isServer, int bufferSize, std::string socketName,
                               IpcHandlerState handlers, const char* name, cpu_set_t affinity,
                               int epollSize, int maxEvents)
    : socketName(std::move(socketName)),
      isServer(isServer),
      bufferSize(bufferSize),
      epollManager(std::make_unique<EpollManager>(
          epollSize, maxEvents, [this] { return this->isServer ? createServer() : connect(); },
          name, affinity, -1)),
      handlers(std::move(handlers)),
      name(name != nullptr ? name : TESU_LOG_UTILS) {}

UnixIpcManager::UnixIpcManager(bool isServer, int bufferSize, std::string socketName,
                               IpcHandlerState handlers, const char* name, int epollSize,
                               int maxEvents)
    : UnixIpcManager(isServer, bufferSize, std::move(socketName), std::move(handlers), name,
                     CurrentAffinity(), epollSize, maxEvents) {}

UnixIpcManager::UnixIpcManager(bool isServer, int bufferSize, std::string socketName,
                               IpcHandlerState handlers, int epollSize, int maxEvents)
    : UnixIpcManager(isServer, bufferSize, std::move(socketName), std::move(handlers),
                     TESU_LOG_UTILS, epollSize, maxEvents) {}

UnixIpcManager::~UnixIpcManager() {
    shutdown();
    for (const auto& [fd, mutex] : writeMutexes) {
        ::close(fd);
    }
    epollManager.reset();
    if (!clearAllBuffer()) {
        TESU_LOGE(name,
                  "[UnixIpcManager][~UnixIpcManager] Clear all buffer failed: %d, message: %s",
                  errno, strerror(errno));
    }
}

bool UnixIpcManager::start() {
    TESU_LOGI(name, "[UnixIpcManager][start] Start epoll Manager...");
    if (isServer) {
        TESU_LOGI(name, "[UnixIpcManager][start] Create server: %s", socketName.c_str());
    } else {
        TESU_LOGI(name, "[UnixIpcManager][start] Connection to server: %s", socketName.c_str());
    }
    epollManager->start();
    return true;
}

bool UnixIpcManager::stop() {
    TESU_LOGI(name, "[UnixIpcManager][stop] Stop epoll Manager...");
    stopRequested = true;
    epollManager->stop();
    // The loop accepts nobody any more: clients, those that wait to be accepted among them, are to
    // see a closed socket and not a silent one.
    MutexLock lock(socketMutex);
    if (isServer && socketFd != -1) {
        epollManager->delMonitorFd(socketFd);
        ::close(socketFd);
        socketFd = -1;
    }
    return true;
}

void UnixIpcManager::shutdown() {
    stopRequested = true;
    epollManager->stop();
    // A callback uses epollManager until its thread has ended.
    epollManager->join();
    MutexLock lock(socketMutex);
    if (isServer && socketFd != -1) {
        ::close(socketFd);
    }
    socketFd = -1;
}

bool UnixIpcManager::createServer() {
    if (!isServer) {
        TESU_LOGE(name, "[UnixIpcManager] Create server in client manager");
        return false;
    }
    do {
        if (tryToListen()) {
            return true;
        }
    } while (!stopRequested && !retryLater(LISTEN_RETRY_MS));
    return false;
}

// One try; false too after stop().
bool UnixIpcManager::tryToListen() {
    hasRetryTimer();
    MutexLock lock(socketMutex);
    if (stopRequested) {
        return false;
    }
    socketFd = OpenServerSocket(socketName.c_str(), !listenFailing);
    if (socketFd == -1 && !listenFailing) {
        TESU_LOGE(name, "[UnixIpcManager] Create server Socket failed: %d, message: %s", errno,
                  strerror(errno));
    }
    listenFailing = socketFd == -1;
    if (socketFd != -1 && !watchListener()) {
        ::close(socketFd);
        socketFd = -1;
    }
    return socketFd != -1;
}

bool UnixIpcManager::watchListener() {
    EpollCallback callbacks;
    callbacks.readCallback = [this](epoll_event event) { return onServerReadableCallback(event); };
    callbacks.closeCallback = [this](epoll_event event) { return onServerCloseCallback(event); };
    return epollManager->addMonitorFd(socketFd, std::move(callbacks));
}

bool UnixIpcManager::connect() {
    if (isServer) {
        TESU_LOGE(name, "[UnixIpcManager] Create client in server manager");
        return false;
    }
    int fd = -1;
    while (!stopRequested && (fd = ConnectToServer(socketName.c_str())) == -1) {
        TESU_LOGE(name,
                  "[UnixIpcManager] Connect failed: %d, message: %s, clientFd: %d, Wait 5 senconds",
                  errno, strerror(errno), fd);
        epollManager->waitForStop(RECONNECT_INTERVAL_MS);
    }
    if (fd == -1) {
        return false;
    }
    {
        MutexLock lock(socketMutex);
        socketFd = fd;
    }
    setSocketBufferSizes(fd);
    EpollCallback callbacks;
    return openConnection(fd, &callbacks) && watchConnection(fd, std::move(callbacks));
}

int UnixIpcManager::onServerReadableCallback(epoll_event /*event*/) {
    int client = -1;
    {
        MutexLock lock(socketMutex);
        if (socketFd == -1) {
            return EPOLL_RESULT_ERROR;
        }
        client = accept4(socketFd, nullptr, nullptr, SOCK_CLOEXEC);
    }
    if (client == -1) {
        const int error = errno;
        if (error != acceptError) {
            TESU_LOGE(name, "[UnixIpcManager] Accept client failed: %d, message: %s", error,
                      strerror(error));
        }
        acceptError = error;
        if (!IsPassing(error)) {
            backOffAccept();
        }
        return EPOLL_RESULT_ERROR;
    }
    acceptError = 0;
    if (handlers.admit && !handlers.admit(client)) {
        ::close(client);
        return EPOLL_RESULT_CONSUMED;
    }
    if (!Setnonblocking(client)) {
        const int error = errno;
        ::close(client);
        TESU_LOGE(name, "[UnixIpcManager] Setnonblocking (client) failed: %d, message: %s", error,
                  strerror(error));
        return EPOLL_RESULT_ERROR;
    }
    try {
        EpollCallback callbacks;
        if (!openConnection(client, &callbacks)) {
            return EPOLL_RESULT_ERROR;
        }
        setSocketBufferSizes(client);
        return watchConnection(client, std::move(callbacks)) ? EPOLL_RESULT_CONSUMED
                                                             : EPOLL_RESULT_ERROR;
    } catch (const std::bad_alloc&) {
        TESU_LOGE(name, "[UnixIpcManager] no memory for connection (%d)", client);
        epollManager->delMonitorFd(client);
        freeBufferForFd(client);
        ::close(client);
        return EPOLL_RESULT_ERROR;
    }
}

// Gives a new connection its guard, its buffers and its callbacks; closes it on failure.
bool UnixIpcManager::openConnection(int fd, EpollCallback* callbacks) {
    {
        MutexLock lock(bufferMutex);
        writeMutexes[fd] = std::make_shared<ConnectionMutex>();
    }
    callbacks->closeCallback = [this](epoll_event event) { return onClientCloseCallback(event); };
    const char* failed = nullptr;
    if (handlers.readable) {
        callbacks->readCallback = [this](epoll_event event) {
            return onClientReadableCallback(event);
        };
        if (!allocateReadBufferForFd(fd)) {
            failed = "read";
        }
    }
    if (handlers.writeable && failed == nullptr) {
        callbacks->writeCallback = [this](epoll_event event) { return onCommWriteCallback(event); };
        if (!allocateWriteBufferForFd(fd)) {
            failed = "write";
        }
    }
    if (failed != nullptr) {
        const int error = errno;
        freeBufferForFd(fd);
        ::close(fd);
        TESU_LOGE(name,
                  "[UnixIpcManager] Allocate %s buffer for server accept connection (%d) failed: "
                  "%d, message: %s",
                  failed, fd, error, strerror(error));
    }
    return failed == nullptr;
}

// Watches a connection and tells the owner of it; closes it when it cannot be watched.
bool UnixIpcManager::watchConnection(int fd, EpollCallback callbacks) {
    if (!epollManager->addMonitorFd(fd, std::move(callbacks))) {
        TESU_LOGE(name, "[UnixIpcManager] connection (%d) cannot be watched and is closed", fd);
        freeBufferForFd(fd);
        ::close(fd);
        return false;
    }
    if (handlers.connection) {
        handlers.connection(fd);
    }
    return true;
}

// The messages name the listening socket, also for an accepted client.
void UnixIpcManager::setSocketBufferSizes(int fd) {
    const auto set = [&](int option, const char* format) {
        if (setsockopt(fd, SOL_SOCKET, option, &bufferSize, sizeof(bufferSize)) == -1) {
            const int error = errno;
            MutexLock lock(socketMutex);
            TESU_LOGE(name, format, error, strerror(error), socketFd);
        }
    };
    set(SO_SNDBUF, "[UnixIpcManager] Set send buffer size failed: %d, message: %s, clientFd: %d");
    set(SO_RCVBUF, "[UnixIpcManager] Set recv buffer size failed: %d, message: %s, clientFd: %d");
}

// Ends a connection: 0, -1 when close() failed, -2 when the buffers could not be freed. Waits for a
// thread that is writing to it. Every step is taken whatever the others' results; close() is not
// retried, since the descriptor is gone either way.
int UnixIpcManager::closeConnection(int fd) {
    const ConnectionGuard guard = lockConnection(fd);
    int result = 0;
    epollManager->delMonitorFd(fd);
    if (::close(fd) == -1) {
        TESU_LOGE(name, "[UnixIpcManager][ServerCallback] Close fd(%d) failed: %d, message: %s", fd,
                  errno, strerror(errno));
        result = -1;
    }
    if (!freeBufferForFd(fd)) {
        TESU_LOGE(name, "[UnixIpcManager][ServerCallback] free buffer failed: %d, message: %s",
                  errno, strerror(errno));
        result = result == 0 ? -2 : result;
    }
    return result;
}

// In client mode, a lost connection is made anew.
void UnixIpcManager::reconnectIfLost(int fd, const char* message) {
    {
        MutexLock lock(socketMutex);
        if (isServer || fd != socketFd) {
            return;
        }
        socketFd = -1;
    }
    TESU_LOGE(name, "%s (%s)", message, socketName.c_str());
    connect();
}

int UnixIpcManager::onClientCloseCallback(epoll_event event) {
    const int fd = event.data.fd;
    // What the server sent before it went still waits in the socket.
    while (!isServer && handlers.readable && receive(fd) == ReceiveOutcome::HANDLED) {
    }
    const int closed = closeConnection(fd);
    if (handlers.close) {
        handlers.close(fd);
    }
    reconnectIfLost(fd, "[UnixIpcManager][onClientCloseCallback] Server socket abnormal close!");
    return closed == 0 ? EPOLL_RESULT_OK : EPOLL_RESULT_ERROR;
}

int UnixIpcManager::onServerCloseCallback(epoll_event event) {
    const int fd = event.data.fd;
    int result = EPOLL_RESULT_OK;
    {
        MutexLock lock(socketMutex);
        // stop() may have closed it since the event came: the number may be another's by now.
        if (fd != socketFd) {
            return EPOLL_RESULT_CLOSED;
        }
        epollManager->delMonitorFd(fd);
        if (::close(fd) == -1) {
            TESU_LOGE(name, "[UnixIpcManager][ServerCallback] Close fd(%d) failed: %d, message: %s",
                      fd, errno, strerror(errno));
            result = EPOLL_RESULT_ERROR;
        }
        socketFd = -1;
    }
    TESU_LOGE(name, "[UnixIpcManager][onServerCloseCallback] Server socket abnormal close! (%s)",
              socketName.c_str());
    if (handlers.close) {
        handlers.close(fd);
    }
    createServer();
    return result;
}

// Leaves the listening socket alone for a while: clients wait in its backlog meanwhile.
void UnixIpcManager::backOffAccept() {
    MutexLock lock(socketMutex);
    if (socketFd != -1 && retryLater(ACCEPT_RETRY_MS)) {
        epollManager->delMonitorFd(socketFd);
    }
}

// Makes the timer when it is not there yet: before it is needed, when descriptors may have run out.
bool UnixIpcManager::hasRetryTimer() {
    if (retryTimer.ok()) {
        return true;
    }
    retryTimer.reset(timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC));
    EpollCallback callbacks;
    callbacks.readCallback = [this](epoll_event) { return onRetryTimer(); };
    if (!retryTimer.ok() || !epollManager->addMonitorFd(retryTimer.get(), std::move(callbacks))) {
        if (!timerFailing) {
            TESU_LOGE(name, "[UnixIpcManager] retry timer failed: %d, message: %s", errno,
                      strerror(errno));
        }
        retryTimer.reset();
    }
    timerFailing = !retryTimer.ok();
    return retryTimer.ok();
}

// Has onRetryTimer called. Without a timer this waits itself, a little, and returns false: the
// caller tries again at once.
bool UnixIpcManager::retryLater(int milliseconds) {
    itimerspec delay{};
    delay.it_value.tv_sec = milliseconds / 1000;
    delay.it_value.tv_nsec = milliseconds % 1000 * 1000000L;
    if (hasRetryTimer() && timerfd_settime(retryTimer.get(), 0, &delay, nullptr) == 0) {
        return true;
    }
    epollManager->waitForStop(ACCEPT_RETRY_MS);
    return false;
}

int UnixIpcManager::onRetryTimer() {
    uint64_t expirations = 0;
    if (read(retryTimer.get(), &expirations, sizeof(expirations)) == -1) {
        return EPOLL_RESULT_CONSUMED;
    }
    bool isListening = false;
    {
        MutexLock lock(socketMutex);
        while (socketFd != -1 && !stopRequested && !watchListener() &&
               !retryLater(ACCEPT_RETRY_MS)) {
        }
        isListening = socketFd != -1;
    }
    if (!isListening) {
        createServer();
    }
    return EPOLL_RESULT_CONSUMED;
}

int UnixIpcManager::notifyNeedWriteData(int fd) {
    return epollManager->notifyWriteEventReady(fd) ? 1 : 0;
}

void UnixIpcManager::disconnect(int fd) {
    epollManager->shutdownFd(fd);
}
