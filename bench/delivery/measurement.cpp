// SPDX-License-Identifier: Apache-2.0
#include "bench/delivery/measurement.h"

#include <time.h>

#include <chrono>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <vector>

#include "bench/delivery/wire.h"
#include "records/contract.h"
#include "tests/support/pinned_rings.h"
#include "tests/support/wait_until.h"

namespace Tesu::Bpf {

namespace {

using std::chrono::milliseconds;

constexpr milliseconds PROBE_INTERVAL{5};
// For the probes to go by.
constexpr milliseconds SETTLE{100};

void Require(bool isTrue, const std::string& what) {
    if (!isTrue) {
        throw std::runtime_error(what);
    }
}

// Nothing outlives the driver, however that ends.
std::vector<std::string> EndingWithDriver(std::vector<std::string> command) {
    command.insert(command.begin(), {"setpriv", "--pdeathsig", "KILL"});
    return command;
}

std::vector<std::string> ServerCommand(ServerKind kind, int clients) {
    switch (kind) {
        case ServerKind::SERVICE:
            // Without limits on clients, which the peers do not have.
            return PatientDaemon({"--property", CLIENTS_PROPERTY + std::string("=0")});
        case ServerKind::ZMQ:
            return {ZMQ_PEER_PATH};
        case ServerKind::RAW:
            return {RAW_PEER_PATH, std::to_string(clients)};
    }
    return {};
}

// Nanoseconds, of all threads, also those that have ended.
int64_t CpuTime(pid_t pid) {
    clockid_t clock{};
    timespec time{};
    Require(clock_getcpuclockid(pid, &clock) == 0 && clock_gettime(clock, &time) == 0,
            "a server has gone");
    return time.tv_sec * std::nano::den + time.tv_nsec;
}

// Reads what the clients tell at their end, and compares it with what was injected.
void Account(const std::string& told, int clients, int64_t start, Outcome& outcome) {
    std::istringstream words(told);
    std::string ready;
    words >> ready;
    int64_t lastEnd = start;
    for (int client = 0; client < clients; ++client) {
        uint64_t delivered = 0;
        uint64_t misordered = 0;
        int64_t end = 0;
        words >> delivered >> misordered >> end;
        std::ostringstream sum;
        sum << "a client's sum does not add up: " << delivered << " delivered (" << misordered
            << " out of order) + " << outcome.lost << " lost, " << outcome.injected << " injected";
        Require(words && misordered == 0 && delivered + outcome.lost == outcome.injected,
                sum.str());
        lastEnd = std::max(lastEnd, end);
    }
    for (double& latency : outcome.latencies) {
        words >> latency;
    }
    outcome.deliveredPerSecond = static_cast<double>(outcome.injected - outcome.lost) * clients *
                                 std::nano::den / static_cast<double>(lastEnd - start);
}

}  // namespace

const char* NameOf(ServerKind kind) {
    return kind == ServerKind::SERVICE ? "ours" : kind == ServerKind::ZMQ ? "ZeroMQ" : "raw";
}

Server::Server(ServerKind kind, int clients)
    : serverKind(kind), process(EndingWithDriver(ServerCommand(kind, clients))) {
    Require(process.waitForOutput(SERVING), "the server does not serve: " + process.error);
    if (kind == ServerKind::SERVICE) {
        Require(WaitUntil([] { return IsEnabled(RING_CORE); }), "the service enables no programs");
        // Off again: real events would be work that the peers do not have.
        SetRingFlags(RING_CORE, 0);
    }
}

ProcessSnapshot Server::snapshot() const {
    const auto found = ProcReader().read(process.pid());
    Require(found && found->openFds, "a server has gone");
    return *found;
}

IdleClients::IdleClients(const Server& server, int count)
    : process(EndingWithDriver({CLIENTS_PATH, "idle", std::to_string(count)})) {
    Require(process.waitForOutput(CLIENTS_ARE_READY), "the idle clients do not get connected");
    // A client is connected before the service knows of it.
    Require(WaitUntil([&] { return server.snapshot().openFds > count; }),
            "the service does not accept the idle clients");
}

Outcome Measure(RecordInjector& injector, const Server& server, const Load& load, int clients) {
    std::vector<std::string> command = {CLIENTS_PATH, NameOf(server.kind()),
                                        std::to_string(clients)};
    if (load.isStamped) {
        command.emplace_back("--latency");
    }
    ChildProcess receivers(EndingWithDriver(command));
    // What is sent before a client has been accepted is not for it, and only a record tells it that
    // it has been.
    Require(WaitUntil([&] {
                InjectProbe(injector);
                return receivers.waitForOutput(CLIENTS_ARE_READY, PROBE_INTERVAL);
            }),
            "the clients get nothing");
    std::this_thread::sleep_for(SETTLE);

    const int64_t cpuBefore = CpuTime(server.pid());
    const int64_t start = std::chrono::steady_clock::now().time_since_epoch().count();
    const auto [sent, refused] = Inject(injector, load);
    InjectEnd(injector);
    Require(receivers.waitForExit() == 0, "the clients do not come to the end");
    const int64_t cpu = CpuTime(server.pid()) - cpuBefore;

    Outcome outcome{.injected = sent + refused, .lost = refused};
    Account(receivers.output, clients, start, outcome);
    outcome.nsPerDelivery = static_cast<double>(cpu) / (static_cast<double>(sent) * clients);
    return outcome;
}

}  // namespace Tesu::Bpf
