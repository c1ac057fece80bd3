// SPDX-License-Identifier: Apache-2.0
//
// One server in a process of its own, and what it costs to have it serve a load. Errors are thrown:
// a server that does not run, a client that got other than what was sent.
#pragma once

#include <sys/types.h>

#include <array>
#include <cstdint>
#include <string>

#include "bench/delivery/load.h"
#include "proc/process_snapshot.h"
#include "tests/support/child_process.h"

namespace Tesu::Bpf {

enum class ServerKind { SERVICE, ZMQ, RAW };
inline constexpr ServerKind SERVERS[] = {ServerKind::SERVICE, ServerKind::ZMQ, ServerKind::RAW};
// For people, and for the clients' program.
const char* NameOf(ServerKind kind);

// Reads the core ring buffer as soon as it can be connected to, and ends with the object. Only one
// may be there. While it is, the ring holds nothing but what this process puts there.
class Server {
  public:
    Server(ServerKind kind, int clients);

    ServerKind kind() const { return serverKind; }
    pid_t pid() const { return process.pid(); }
    ProcessSnapshot snapshot() const;

  private:
    ServerKind serverKind;
    ChildProcess process;
};

// Connections to the service that ask for nothing, for as long as the object lives. The service has
// accepted them all.
class IdleClients {
  public:
    IdleClients(const Server& server, int count);

  private:
    ChildProcess process;
};

struct Outcome {
    double nsPerDelivery = 0;  // CPU time, user and system, of all the server's threads
    double deliveredPerSecond = 0;
    uint64_t injected = 0;
    uint64_t lost = 0;  // of those injected: refused by the full ring
    // Of a stamped load, nanoseconds: median, 99 %, 99.9 %, most.
    std::array<double, 4> latencies{};
};

// Connects new clients and counts until each has got what there was. A server can serve several
// loads, one after the other, but for the raw peer.
Outcome Measure(RecordInjector& injector, const Server& server, const Load& load, int clients);

}  // namespace Tesu::Bpf
