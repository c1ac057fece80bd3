// SPDX-License-Identifier: Apache-2.0
//
// A client that knows the wire format and nothing of the library: what it understands, any client
// written from the format alone understands. Blocking; one thread at a time.
#pragma once

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

class WireClient {
  public:
    struct Package {
        uint32_t type = 0;
        std::string body;
    };

    WireClient() = default;
    ~WireClient() { disconnect(); }
    WireClient(const WireClient&) = delete;
    WireClient& operator=(const WireClient&) = delete;
    WireClient(WireClient&& other) noexcept : fd(other.fd), received(std::move(other.received)) {
        other.fd = -1;
    }

    // Tries until the server is there or the patience is over.
    bool connectTo(const std::string& name,
                   std::chrono::milliseconds patience = std::chrono::seconds(20)) {
        const auto end = std::chrono::steady_clock::now() + patience;
        do {
            if (tryConnect(name)) {
                return true;
            }
            usleep(10000);
        } while (std::chrono::steady_clock::now() < end);
        return false;
    }

    bool tryConnect(const std::string& name) {
        disconnect();
        fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path + 1, name.data(), name.size());
        const auto length =
            static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
        if (connect(fd, reinterpret_cast<const sockaddr*>(&address), length) == 0) {
            return true;
        }
        disconnect();
        return false;
    }

    void disconnect() {
        if (fd != -1) {
            close(fd);
            fd = -1;
        }
        received.clear();
    }

    int descriptor() const { return fd; }

    bool sendBytes(const std::string& bytes) const {
        size_t sent = 0;
        while (sent < bytes.size()) {
            const ssize_t count = send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
            if (count <= 0) {
                return false;
            }
            sent += static_cast<size_t>(count);
        }
        return true;
    }

    static std::string word(uint32_t value) {
        return {reinterpret_cast<const char*>(&value), sizeof(value)};
    }

    static std::string frame(uint32_t type, const std::string& body) {
        return word(static_cast<uint32_t>(body.size()) + 8) + word(type) +
               word(static_cast<uint32_t>(body.size())) + body;
    }

    static std::string request(uint32_t id, std::string command, const std::string& data) {
        command.resize(32);
        return frame(0, word(id) + command + word(static_cast<uint32_t>(data.size())) + data);
    }

    static std::string subscription(uint32_t id, int32_t eventType) {
        return request(id, "register-event-monitor", word(static_cast<uint32_t>(eventType)));
    }

    // The next package; nothing when the patience is over or the server hung up.
    std::optional<Package> next(
        std::chrono::milliseconds patience = std::chrono::milliseconds(20000)) {
        const auto end = std::chrono::steady_clock::now() + patience;
        while (true) {
            if (auto package = takePackage()) {
                return package;
            }
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                end - std::chrono::steady_clock::now());
            pollfd readable{.fd = fd, .events = POLLIN, .revents = 0};
            if (poll(&readable, 1, left.count() > 0 ? static_cast<int>(left.count()) : 0) <= 0 ||
                !receiveMore()) {
                return std::nullopt;
            }
        }
    }

    // Whether the server closes the connection within the patience; what it sends is dropped.
    bool isClosedByServer(std::chrono::milliseconds patience = std::chrono::milliseconds(20000)) {
        const auto end = std::chrono::steady_clock::now() + patience;
        while (std::chrono::steady_clock::now() < end) {
            pollfd readable{.fd = fd, .events = POLLIN, .revents = 0};
            if (poll(&readable, 1, 50) > 0 && !receiveMore()) {
                return true;
            }
        }
        return false;
    }

    // Subscribes and waits for the reply: its result, or nothing.
    std::optional<int32_t> subscribe(int32_t eventType, uint32_t id = 1) {
        if (!sendBytes(subscription(id, eventType))) {
            return std::nullopt;
        }
        const auto reply = next();
        if (!reply || reply->type != 1 || reply->body.size() != 12 ||
            wordAt(reply->body, 0) != id || wordAt(reply->body, 8) != 0) {
            return std::nullopt;
        }
        return static_cast<int32_t>(wordAt(reply->body, 4));
    }

    static uint32_t wordAt(const std::string& bytes, size_t offset) {
        uint32_t value = 0;
        std::memcpy(&value, bytes.data() + offset, sizeof(value));
        return value;
    }

  private:
    std::optional<Package> takePackage() {
        if (received.size() - consumed < 4) {
            return std::nullopt;
        }
        const uint32_t length = wordAt(received, consumed);
        if (length < 8 || received.size() - consumed < 4 + size_t{length}) {
            return std::nullopt;
        }
        Package package{.type = wordAt(received, consumed + 4),
                        .body = received.substr(consumed + 12, length - 8)};
        consumed += 4 + size_t{length};
        return package;
    }

    bool receiveMore() {
        received.erase(0, consumed);
        consumed = 0;
        char bytes[65536];
        const ssize_t count = recv(fd, bytes, sizeof(bytes), 0);
        if (count <= 0) {
            return false;
        }
        received.append(bytes, static_cast<size_t>(count));
        return true;
    }

    int fd = -1;
    std::string received;
    size_t consumed = 0;
};
