// SPDX-License-Identifier: Apache-2.0
#include "client/connection/service_connection.h"

#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "ipc/ipc_package.h"
#include "ipc/local_socket.h"
#include "ipc/request_frame.h"
#include "records/contract.h"

namespace Tesu::Bpf {

namespace {

constexpr std::chrono::seconds RETRY_PAUSE{5};
// After a lost connection, so that a peer that hangs up on everybody, or talks nonsense, is not
// connected to without end; and while the service has too many connections to accept.
constexpr std::chrono::seconds SHORT_PAUSE{1};

// The frame that subscribes to an event type, with that as the id of the request.
std::string Subscription(uint32_t eventType) {
    return RequestFrame(eventType, REGISTER_COMMAND,
                        {reinterpret_cast<const char*>(&eventType), sizeof(eventType)});
}

}  // namespace

ServiceConnection::ServiceConnection(std::string socketName, std::vector<int> eventTypes)
    : socketName(std::move(socketName)),
      eventTypes(std::move(eventTypes)),
      epoll(epoll_create1(EPOLL_CLOEXEC)),
      retryTimer(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK)),
      storage(IPC_BUFFER_SIZE),
      received{.capacity = IPC_BUFFER_SIZE, .data = storage.data()} {}

Result<ServiceConnection> ServiceConnection::open(std::string socketName,
                                                  std::vector<int> eventTypes) {
    ServiceConnection connection(std::move(socketName), std::move(eventTypes));
    if (!connection.epoll.ok() || !connection.retryTimer.ok() ||
        !connection.watch(connection.retryTimer.get(), EPOLL_CTL_ADD, EPOLLIN)) {
        return SystemFailure("cannot create an event descriptor");
    }
    connection.retryIn(std::chrono::seconds(0));
    return connection;
}

ConnectionItem ServiceConnection::next() {
    if (following != ConnectionItem::NOTHING) {
        return {.kind = std::exchange(following, ConnectionItem::NOTHING)};
    }
    if (!socket.ok()) {
        return tryToConnect();
    }
    if (!unsent.empty()) {
        sendRequests();
    }
    while (true) {
        const Result<std::optional<Package>> package = TakePackage(&received);
        if (!package) {
            lose();
            following = ConnectionItem::LOST;
            return {.kind = ConnectionItem::MALFORMED, .reason = package.error()};
        }
        if (*package) {
            ConnectionItem item = onPackage(**package);
            if (item.kind != ConnectionItem::NOTHING) {
                return item;
            }
        } else if (!std::exchange(mayReceive, false)) {
            mayReceive = true;
            return {};
        } else if (!receive()) {
            return socket.ok()
                       ? ConnectionItem{}
                       : ConnectionItem{.kind = ConnectionItem::LOST, .reason = whyClosed()};
        }
    }
}

ConnectionItem ServiceConnection::tryToConnect() {
    uint64_t expirations = 0;
    if (read(retryTimer.get(), &expirations, sizeof(expirations)) == -1) {
        return {};
    }
    socket = ConnectLocalSocket(socketName, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (!socket.ok() || !watch(socket.get(), EPOLL_CTL_ADD, EPOLLIN)) {
        const bool isListening = socket.ok() || errno == EAGAIN;
        socket.reset();
        retryIn(isListening ? SHORT_PAUSE : RETRY_PAUSE);
        if (isListening || std::exchange(isWaiting, true)) {
            return {};
        }
        return {.kind = ConnectionItem::WAITING};
    }
    isWaiting = false;
    // What an earlier connection did not send, get answered or complete is gone with it.
    unsent.clear();
    unanswered.clear();
    received.cursor = received.length = 0;
    mayReceive = true;
    for (const int eventType : eventTypes) {
        unanswered.insert(static_cast<uint32_t>(eventType));
        unsent += Subscription(static_cast<uint32_t>(eventType));
    }
    sendRequests();
    return {.kind = ConnectionItem::CONNECTED};
}

// A connection that broke says so to the next receive.
void ServiceConnection::sendRequests() {
    const ssize_t sent = send(socket.get(), unsent.data(), unsent.size(), MSG_NOSIGNAL);
    unsent.erase(0, sent == -1 ? 0 : static_cast<size_t>(sent));
    watch(socket.get(), EPOLL_CTL_MOD, unsent.empty() ? EPOLLIN : EPOLLIN | EPOLLOUT);
}

// NOTHING for a package that is none of a client's business.
ConnectionItem ServiceConnection::onPackage(const Package& package) {
    if (package.type == IPC_PACKAGE_EVENT) {
        return {.kind = ConnectionItem::EVENT, .data = package.body, .size = package.length};
    }
    if (package.type != IPC_PACKAGE_RESPONSE || package.length < IPC_RESPONSE_HEAD_SIZE) {
        return {};
    }
    const uint32_t eventType = ReadWord(package.body);
    if (unanswered.erase(eventType) == 0) {
        return {};
    }
    const auto progress = unanswered.empty() ? ConnectionItem::SUBSCRIBED : ConnectionItem::NOTHING;
    if (ReadWord(package.body + sizeof(uint32_t)) == 0) {
        return {.kind = progress};
    }
    following = progress;
    return {.kind = ConnectionItem::REFUSED, .eventType = static_cast<int>(eventType)};
}

// False when nothing has come, and when the connection was lost.
bool ServiceConnection::receive() {
    SaveUnuseBuffer(&received);
    const ssize_t count = recv(socket.get(), received.data + received.length,
                               static_cast<size_t>(received.capacity - received.length), 0);
    if (count > 0) {
        received.length += static_cast<int>(count);
        return true;
    }
    if (count == 0 || (errno != EAGAIN && errno != EINTR)) {
        lose();
    }
    mayReceive = true;
    return false;
}

void ServiceConnection::lose() {
    socket.reset();  // and with it out of the epoll set
    retryIn(SHORT_PAUSE);
}

// A service that goes on hung up on this client alone.
std::string ServiceConnection::whyClosed() const {
    if (!IsServiceListening(socketName)) {
        return "";
    }
    return unanswered.empty() ? "too slow, the daemon did not wait any longer"
                              : "the daemon does not admit this client";
}

bool ServiceConnection::watch(int fd, int operation, uint32_t events) {
    epoll_event event{.events = events, .data = {}};
    return epoll_ctl(epoll.get(), operation, fd, &event) == 0;
}

void ServiceConnection::retryIn(std::chrono::seconds pause) {
    // No time at all would disarm the timer.
    const itimerspec deadline{
        .it_interval = {},
        .it_value = {.tv_sec = static_cast<time_t>(pause.count()), .tv_nsec = 1}};
    timerfd_settime(retryTimer.get(), 0, &deadline, nullptr);
}

}  // namespace Tesu::Bpf
