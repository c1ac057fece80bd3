// SPDX-License-Identifier: Apache-2.0
//
// delivery_clients ours|ZeroMQ|raw COUNT [--latency]: so many clients of one server. One thread
// reads all their sockets, as ZeroMQ's does, so that no server's sends wake more threads than
// another's. They count records until the one that ends the stream, and then tell in a line each:
// how many came, how many of those out of order, and when the end came (CLOCK_MONOTONIC,
// nanoseconds).
// --latency: a line more, with the nanoseconds since the times of the first client's records:
// median, 99 %, 99.9 %, most. --go-on: a line whenever the end comes, after which they go on.
//
// delivery_clients idle COUNT: so many connections to the service on which nothing is asked for.
#include <poll.h>
#include <zmq.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <functional>
#include <latch>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include "bench/delivery/wire.h"
#include "records/contract.h"
#include "records/raw_event.h"
#include "tests/support/wire_client.h"

namespace Tesu::Bpf {
namespace {

constexpr size_t READ_BYTES = 1 << 18;

int64_t Now() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000000000LL + now.tv_nsec;
}

// What one client got. Of the thread that reads for it, until that has ended.
struct Tally {
    // False for the record that ends the stream.
    bool take(const char* record, std::latch& ready) {
        int64_t time = 0;
        std::memcpy(&time, record + offsetof(RawEventHeader, time), sizeof(time));
        if (time == PROBE_TIME) {
            if (!isReady) {
                ready.count_down();
            }
            isReady = true;
            return true;
        }
        if (time == END_TIME) {
            end = Now();
            if (goesOn) {
                print();
            }
            return goesOn;
        }
        ++delivered;
        misordered += time <= last;
        last = time;
        if (isTimed) {
            latencies.push_back(readAt - time);
        }
        return true;
    }

    void print() const {
        std::printf("%llu %llu %lld\n", static_cast<unsigned long long>(delivered),
                    static_cast<unsigned long long>(misordered), static_cast<long long>(end));
        std::fflush(stdout);
    }

    uint64_t delivered = 0;
    uint64_t misordered = 0;
    int64_t last = 0;
    int64_t end = 0;  // when the end came
    bool isReady = false;
    bool isTimed = false;
    bool goesOn = false;
    int64_t readAt = 0;
    std::vector<int64_t> latencies;
};

// A client that gets frames.
class FrameClient {
  public:
    explicit FrameClient(Tally& count) : tally(count), bytes(READ_BYTES) {}

    bool connectTo(bool isService) {
        return isService ? client.connectTo(SERVICE_SOCKET_NAME) &&
                               client.sendBytes(WireClient::subscription(1, RAW_EVENT_DMABUF_SIZE))
                         : client.connectTo(RAW_PEER_SOCKET);
    }
    int descriptor() const { return client.descriptor(); }

    // Takes what is there. False at the end of the stream or of the connection.
    bool read(std::latch& ready) {
        const ssize_t count =
            recv(client.descriptor(), bytes.data() + filled, bytes.size() - filled, 0);
        tally.readAt = tally.isTimed ? Now() : 0;
        filled += static_cast<size_t>(std::max<ssize_t>(count, 0));
        size_t at = 0;
        uint32_t header[3] = {};  // length of the rest, type, length of the body
        while (filled - at >= sizeof(header)) {
            std::memcpy(header, &bytes[at], sizeof(header));
            const size_t length = sizeof(header[0]) + header[0];
            if (filled - at < length) {
                break;
            }
            if (header[1] == WireClient::EVENT && !tally.take(&bytes[at + sizeof(header)], ready)) {
                return false;
            }
            at += length;
        }
        filled -= at;
        std::memmove(bytes.data(), bytes.data() + at, filled);
        return count > 0;
    }

  private:
    Tally& tally;
    WireClient client;
    std::vector<char> bytes;
    size_t filled = 0;  // of them
};

void ReadFrames(std::span<Tally> tallies, bool isService, std::latch& ready) {
    std::vector<FrameClient> clients(tallies.begin(), tallies.end());
    std::vector<pollfd> readable;
    for (FrameClient& client : clients) {
        client.connectTo(isService);
        readable.push_back({.fd = client.descriptor(), .events = POLLIN, .revents = 0});
    }
    for (size_t open = clients.size(); open > 0;) {
        poll(readable.data(), readable.size(), -1);
        for (size_t i = 0; i < clients.size(); ++i) {
            if (readable[i].revents != 0 && !clients[i].read(ready)) {
                readable[i].fd = -1;  // passed over from now on
                --open;
            }
        }
    }
}

void ReadMessages(void* context, Tally& tally, std::latch& ready) {
    void* const subscriber = zmq_socket(context, ZMQ_SUB);
    const int unlimited = 0;
    zmq_setsockopt(subscriber, ZMQ_RCVHWM, &unlimited, sizeof(unlimited));
    zmq_setsockopt(subscriber, ZMQ_SUBSCRIBE, "", 0);
    char record[sizeof(RawDmabufAllocEvent)] = {};
    if (zmq_connect(subscriber, ZMQ_PEER_ADDRESS) == 0) {
        while (zmq_recv(subscriber, record, sizeof(record), 0) == sizeof(record) &&
               tally.take(record, ready)) {
        }
    }
    zmq_close(subscriber);
}

void Say(const char* line) {
    std::fputs(line, stdout);
    std::fflush(stdout);
}

void PrintLatencies(std::vector<int64_t>& latencies) {
    std::ranges::sort(latencies);
    for (const double share : {0.5, 0.99, 0.999, 1.0}) {
        const auto rank = static_cast<size_t>(share * static_cast<double>(latencies.size()));
        std::printf("%lld ",
                    static_cast<long long>(latencies.at(std::min(rank, latencies.size() - 1))));
    }
    std::printf("\n");
}

int Count(const std::string& kind, size_t clients, const std::string& option) {
    const bool isTimed = option == "--latency";
    std::latch ready(static_cast<ptrdiff_t>(clients));
    std::vector<Tally> tallies(clients);
    tallies.front().isTimed = isTimed;
    for (Tally& tally : tallies) {
        tally.goesOn = option == "--go-on";
    }
    std::vector<std::thread> threads;
    if (kind == "ZeroMQ") {
        void* const context = zmq_ctx_new();
        for (Tally& tally : tallies) {
            threads.emplace_back(ReadMessages, context, std::ref(tally), std::ref(ready));
        }
    } else {
        threads.emplace_back(ReadFrames, std::span(tallies), kind == "ours", std::ref(ready));
    }
    ready.wait();
    Say(CLIENTS_ARE_READY);
    for (std::thread& thread : threads) {
        thread.join();
    }
    for (const Tally& tally : tallies) {
        tally.print();
    }
    if (isTimed) {
        PrintLatencies(tallies.front().latencies);
    }
    return 0;
}

int BeIdle(size_t count) {
    std::vector<WireClient> clients(count);
    for (WireClient& client : clients) {
        if (!client.connectTo(SERVICE_SOCKET_NAME)) {
            return 1;
        }
    }
    Say(CLIENTS_ARE_READY);
    pause();
    return 0;
}

}  // namespace
}  // namespace Tesu::Bpf

int main(int argc, char** argv) {
    using namespace Tesu::Bpf;
    if (argc < 3) {
        return 2;
    }
    const std::string kind = argv[1];
    const size_t count = std::stoul(argv[2]);
    return kind == "idle" ? BeIdle(count) : Count(kind, count, argc > 3 ? argv[3] : "");
}
