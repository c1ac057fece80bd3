// SPDX-License-Identifier: Apache-2.0
//
// The service's side of the socket for tests of clients, made from the wire format alone. One
// client at a time; used by one thread.
#pragma once

#include <android-base/unique_fd.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "tests/support/wait_until.h"
#include "tests/support/wire_client.h"

class FakeService {
  public:
    explicit FakeService(const std::string& name)
        : listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        const auto [address, length] = WireClient::addressOf(name);
        EXPECT_EQ(bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), length), 0);
        EXPECT_EQ(listen(listener.get(), 1), 0);
        limitWaiting(listener.get());
    }

    // A name that no other test of this machine uses.
    static std::string uniqueName() {
        static int number = 0;
        return "/tesubpf/test/" + std::to_string(getpid()) + "." + std::to_string(++number);
    }

    // Takes the next client and accepts its first `count` subscriptions. Returns the types.
    std::vector<uint32_t> acceptClient(size_t count) {
        client.reset(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
        EXPECT_TRUE(client.ok()) << "no client has come";
        limitWaiting(client.get());
        std::vector<uint32_t> types;
        std::string request(WireClient::subscription(0, 0).size(), '\0');
        while (types.size() < count && recv(client.get(), request.data(), request.size(),
                                            MSG_WAITALL) == static_cast<ssize_t>(request.size())) {
            const uint32_t id = WireClient::wordAt(request, 12);
            types.push_back(WireClient::wordAt(request, 52));
            EXPECT_EQ(request, WireClient::subscription(id, static_cast<int32_t>(types.back())));
            sendBytes(WireClient::frame(1, WireClient::word(id) + std::string(8, '\0')));
        }
        return types;
    }

    // Of the client's connection. Borrowed.
    int descriptor() const { return client.get(); }
    void hangUp() { client.reset(); }
    void sendEvent(const std::string& event) const { sendBytes(WireClient::frame(3, event)); }
    void sendBytes(const std::string& bytes) const {
        EXPECT_EQ(send(client.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(bytes.size()));
    }

  private:
    static void limitWaiting(int fd) {
        const timeval limit{.tv_sec = TEST_PATIENCE.count(), .tv_usec = 0};
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
        setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit));
    }

    android::base::unique_fd listener;
    android::base::unique_fd client;
};
