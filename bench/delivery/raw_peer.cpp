// SPDX-License-Identifier: Apache-2.0
//
// The least that the service's work can cost: each record is copied, as a frame, behind those that
// a client has not got yet, and they are sent when the ring has been read. It accepts as many
// clients as the argument says before it reads, and knows of no other business.
#include <android-base/unique_fd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "bench/delivery/pinned_ring.h"
#include "tests/support/wire_client.h"

namespace Tesu::Bpf {
namespace {

// A ring that never runs empty is sent piece by piece.
constexpr size_t SEND_AT_BYTES = 1 << 18;
constexpr int RETRY_MS = 1;

struct Client {
    android::base::unique_fd fd;
    std::string unsent;
};
using Clients = std::vector<Client>;

// What the sockets do not take stays. Whether something does.
bool Send(Clients& clients) {
    bool isLeft = false;
    for (auto& [fd, unsent] : clients) {
        if (unsent.empty()) {
            continue;
        }
        const ssize_t count =
            send(fd.get(), unsent.data(), unsent.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        unsent.erase(0, static_cast<size_t>(std::max<ssize_t>(count, 0)));
        isLeft |= !unsent.empty();
    }
    return isLeft;
}

int Append(void* context, void* record, size_t size) {
    auto& clients = *static_cast<Clients*>(context);
    const auto length = static_cast<uint32_t>(size);
    const uint32_t header[] = {length + 8, WireClient::EVENT, length};
    for (auto& [fd, unsent] : clients) {
        unsent.append(reinterpret_cast<const char*>(header), sizeof(header));
        unsent.append(static_cast<const char*>(record), size);
    }
    if (clients.front().unsent.size() >= SEND_AT_BYTES) {
        Send(clients);
    }
    return 0;
}

}  // namespace
}  // namespace Tesu::Bpf

int main(int, char** argv) {
    using namespace Tesu::Bpf;
    const android::base::unique_fd listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const auto [address, length] = WireClient::addressOf(RAW_PEER_SOCKET);
    if (bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), length) != 0 ||
        listen(listener.get(), SOMAXCONN) != 0) {
        std::perror("cannot listen");
        return EXIT_FAILURE;
    }
    SayServing();
    Clients clients(std::stoul(argv[1]));
    for (Client& client : clients) {
        client.fd.reset(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
    }
    ring_buffer* const ring = OpenCoreRing(Append, &clients);
    bool isLeft = false;
    while (ring_buffer__poll(ring, isLeft ? RETRY_MS : -1) >= 0) {
        isLeft = Send(clients);
    }
    std::perror("cannot poll");
    return EXIT_FAILURE;
}
