// SPDX-License-Identifier: Apache-2.0
//
// The service's side of the socket for tests of clients, made from the wire format alone. One
// client at a time; used by one thread.
#pragma once

#include <android-base/unique_fd.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "tests/support/wait_until.h"
#include "tests/support/wire_client.h"

class FakeService {
  public:
    explicit FakeService(const std::string& name)
        : listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
        std::memcpy(address.sun_path + 1, name.data(), name.size());
        const size_t size = offsetof(sockaddr_un, sun_path) + 1 + name.size();
        EXPECT_EQ(bind(listener.get(), reinterpret_cast<sockaddr*>(&address),
                       static_cast<socklen_t>(size)),
                  0);
        listen(listener.get(), 1);
        limitWaiting(listener.get(), SO_RCVTIMEO);
    }

    // A name that no other test of this machine uses.
    static std::string uniqueName() {
        static int number = 0;
        return "/tesubpf/test/" + std::to_string(getpid()) + "." + std::to_string(++number);
    }

    // Takes the next client and answers its first `count` subscriptions: with -1 those to
    // `refused`. Returns the types.
    std::vector<uint32_t> acceptClient(size_t count, const std::vector<uint32_t>& refused = {}) {
        client.reset(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
        EXPECT_TRUE(client.ok()) << "no client has come";
        limitWaiting(client.get(), SO_RCVTIMEO);
        limitWaiting(client.get(), SO_SNDTIMEO);
        std::vector<uint32_t> types;
        std::string request(WireClient::subscription(0, 0).size(), '\0');
        while (types.size() < count && recv(client.get(), request.data(), request.size(),
                                            MSG_WAITALL) == static_cast<ssize_t>(request.size())) {
            const uint32_t id = WireClient::wordAt(request, 12);
            types.push_back(WireClient::wordAt(request, 52));
            EXPECT_EQ(request, WireClient::subscription(id, static_cast<int32_t>(types.back())));
            const bool isRefused = std::count(refused.begin(), refused.end(), types.back()) != 0;
            sendBytes(WireClient::frame(1, WireClient::word(id) +
                                               WireClient::word(isRefused ? -1U : 0) +
                                               WireClient::word(0)));
        }
        return types;
    }

    // Of the client's connection. Borrowed.
    int descriptor() const { return client.get(); }
    void sendEvent(const std::string& event) const { sendBytes(WireClient::frame(3, event)); }
    void sendBytes(const std::string& bytes) const {
        EXPECT_EQ(send(client.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(bytes.size()));
    }

  private:
    static void limitWaiting(int fd, int option) {
        const timeval limit{.tv_sec = TEST_PATIENCE.count(), .tv_usec = 0};
        setsockopt(fd, SOL_SOCKET, option, &limit, sizeof(limit));
    }

    android::base::unique_fd listener;
    android::base::unique_fd client;
};
