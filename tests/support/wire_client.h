// SPDX-License-Identifier: Apache-2.0
//
// A client that knows the wire format and nothing of the library: what it understands, any client
// written from the format alone understands. Blocking; one thread at a time.
#pragma once

#include <android-base/unique_fd.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <utility>

#include "tests/support/wait_until.h"

class WireClient {
  public:
    using Milliseconds = std::chrono::milliseconds;
    static constexpr Milliseconds PATIENCE{20000};

    enum : uint32_t { REQUEST = 0, RESPONSE = 1, EVENT = 3 };
    struct Package {
        uint32_t type = 0;  // of these
        std::string body;
    };

    // Tries until the server is there or the patience is over.
    bool connectTo(const std::string& name) {
        return WaitUntil([&] { return tryConnect(name); }, PATIENCE);
    }

    bool tryConnect(const std::string& name) {
        *this = WireClient();
        const auto [address, length] = addressOf(name);
        fd.reset(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        return connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), length) == 0;
    }

    // The name is one of the abstract namespace: a NUL stands in front of it.
    static std::pair<sockaddr_un, socklen_t> addressOf(const std::string& name) {
        sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
        const size_t length = name.copy(address.sun_path + 1, sizeof(address.sun_path) - 1);
        return {address, static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + length)};
    }

    int descriptor() const { return fd.get(); }

    // Waits for room. False when the connection is closed.
    bool sendBytes(const std::string& bytes) const {
        return send(fd.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
               static_cast<ssize_t>(bytes.size());
    }

    // All integers of the format are 32 bits, little-endian.
    static std::string word(uint32_t value) {
        return {reinterpret_cast<const char*>(&value), sizeof(value)};
    }
    // 0 for what lies behind the end.
    static uint32_t wordAt(const std::string& bytes, size_t offset) {
        uint32_t value = 0;
        bytes.copy(reinterpret_cast<char*>(&value), sizeof(value), std::min(offset, bytes.size()));
        return value;
    }

    // Length of what follows, then the package: type, length of the body, body.
    static std::string frame(uint32_t type, const std::string& body) {
        const auto length = static_cast<uint32_t>(body.size());
        return word(length + 8) + word(type) + word(length) + body;
    }
    static std::string request(uint32_t id, std::string command, const std::string& data) {
        command.resize(32);
        const auto length = static_cast<uint32_t>(data.size());
        return frame(REQUEST, word(id) + command + word(length) + data);
    }
    static std::string subscription(uint32_t id, int32_t eventType) {
        return request(id, "register-event-monitor", word(static_cast<uint32_t>(eventType)));
    }

    // Subscribes and waits for the reply: 0 accepted, -1 refused; nothing when none came.
    std::optional<int32_t> subscribe(int32_t eventType, uint32_t id = 1) {
        return sendBytes(subscription(id, eventType)) ? reply(id) : std::nullopt;
    }

    // The result in the reply to a request. Events of earlier subscriptions may come before it:
    // they are kept for next(). Replies come in the order of their requests.
    std::optional<int32_t> reply(uint32_t id) {
        const auto end = Clock::now() + PATIENCE;
        while (auto package = receive(end)) {
            if (package->type == RESPONSE && wordAt(package->body, 0) == id) {
                return static_cast<int32_t>(wordAt(package->body, 4));
            }
            kept.push_back(std::move(*package));
        }
        return std::nullopt;
    }

    // The next package; nothing when the patience is over or the server hung up.
    std::optional<Package> next(Milliseconds patience = PATIENCE) {
        if (kept.empty()) {
            return receive(Clock::now() + patience);
        }
        std::optional<Package> package = std::move(kept.front());
        kept.pop_front();
        return package;
    }

    // Whether the server closes the connection within the patience; what it sends is dropped.
    bool isClosedByServer() {
        return WaitUntil([this] { return !receiveMore(Clock::now() + PATIENCE); }) && closed;
    }

  private:
    using Clock = std::chrono::steady_clock;

    std::optional<Package> receive(Clock::time_point end) {
        std::optional<Package> package = takePackage();
        while (!package && receiveMore(end)) {
            package = takePackage();
        }
        return package;
    }

    // Nothing when no whole package is there.
    std::optional<Package> takePackage() {
        const size_t available = received.size() - consumed;
        const uint32_t length = available < 4 ? 0 : wordAt(received, consumed);
        if (length < 8 || available < 4 + size_t{length}) {
            return std::nullopt;
        }
        Package package{.type = wordAt(received, consumed + 4),
                        .body = received.substr(consumed + 12, length - 8)};
        consumed += 4 + size_t{length};
        return package;
    }

    // False when nothing came in time or the connection is closed.
    bool receiveMore(Clock::time_point end) {
        const auto left = std::chrono::duration_cast<Milliseconds>(end - Clock::now());
        pollfd readable{.fd = fd.get(), .events = POLLIN, .revents = 0};
        if (poll(&readable, 1, std::max(0, static_cast<int>(left.count()))) <= 0) {
            return false;
        }
        received.erase(0, std::exchange(consumed, 0));
        char bytes[65536];
        const ssize_t count = recv(fd.get(), bytes, sizeof(bytes), 0);
        closed = count <= 0;
        received.append(bytes, closed ? 0 : static_cast<size_t>(count));
        return !closed;
    }

    android::base::unique_fd fd;
    bool closed = false;   // by the server
    std::string received;  // the part before `consumed` has been taken
    size_t consumed = 0;
    std::deque<Package> kept;
};
