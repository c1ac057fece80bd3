// SPDX-License-Identifier: Apache-2.0
//
// What a delivered record costs the service, beside two peers that read the same ring buffer: one
// made with ZeroMQ, and one that does the least that can be done. Expects the programs to be loaded
// and no daemon to run; ../run sees to both.
#include <gtest/gtest.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdio>
#include <exception>
#include <string>

#include "bench/delivery/measurement.h"
#include "bench/delivery/report.h"

namespace Tesu::Bpf {
namespace {

using std::chrono::milliseconds;

struct Plan {
    milliseconds flow{2000};
    // Of records that come alone: a thousand of them.
    milliseconds alone{10000};
};
constexpr Plan QUICK{.flow = milliseconds(100), .alone = milliseconds(300)};

void Progress(const std::string& what) {
    std::fprintf(stderr, "bench: %s\n", what.c_str());
}

void MeasureCase(RecordInjector& injector, ServerKind kind, const Load& load, int clients,
                 Samples& samples) {
    const std::string name = CaseName(kind, load.rate, clients);
    Progress(name);
    const Outcome outcome = Measure(injector, Server(kind, clients), load, clients);
    samples.add(name + COST, outcome.nsPerDelivery);
    samples.add(name + LOST, static_cast<double>(outcome.lost));
    samples.add(name + LOST_SHARE,
                100.0 * static_cast<double>(outcome.lost) / static_cast<double>(outcome.injected));
    samples.add(name + DELIVERED, outcome.deliveredPerSecond);
}

// The peers' latency is left out: it is a matter of how long they rest, and they do not.
void MeasureLatency(RecordInjector& injector, const std::string& name, uint64_t rate,
                    milliseconds duration, Samples& samples) {
    Progress(name);
    const Load load{.rate = rate, .duration = duration, .isStamped = true};
    const auto ns = Measure(injector, Server(ServerKind::SERVICE, 1), load, 1).latencies;
    samples.add(name + LATENCY_MEDIAN, ns[0] / 1000);
    samples.add(name + LATENCY_99, ns[1] / 1000);
    samples.add(name + LATENCY_999, ns[2] / 1000);
    samples.add(name + LATENCY_MOST, ns[3] / 1000);
}

double ResidentKib(const Server& server) {
    const auto memory = server.snapshot().memory;
    return static_cast<double>(memory[RSS_FILE] + memory[RSS_ANON] + memory[RSS_SHMEM]) / 1024;
}

void MeasureIdleClients(RecordInjector& injector, milliseconds duration, Samples& samples) {
    const Load load{.rate = IDLE_RATE, .duration = duration};
    Progress("without idle clients");
    samples.add(WITHOUT_IDLE,
                Measure(injector, Server(ServerKind::SERVICE, 1), load, 1).nsPerDelivery);
    Progress("with idle clients");
    const Server server(ServerKind::SERVICE, 1);
    const double before = ResidentKib(server);
    const IdleClients idle(server, IDLE_CLIENTS);
    samples.add(IDLE_KIB, (ResidentKib(server) - before) / IDLE_CLIENTS);
    samples.add(WITH_IDLE, Measure(injector, server, load, 1).nsPerDelivery);
}

void Run(RecordInjector& injector, const Plan& plan, Samples& samples) {
    // Of a case one after the other, so that they meet the machine in the same mood.
    for (const uint64_t rate : RATES) {
        for (const int clients : CLIENT_COUNTS) {
            for (const ServerKind kind : SERVERS) {
                MeasureCase(injector, kind, {.rate = rate, .duration = plan.flow}, clients,
                            samples);
            }
        }
    }
    for (const ServerKind kind : SERVERS) {
        MeasureCase(injector, kind, {.rate = UNLIMITED, .duration = plan.flow}, 1, samples);
    }
    MeasureLatency(injector, ALONE, ALONE_RATE, plan.alone, samples);
    MeasureLatency(injector, IN_FLOW, FLOW_RATE, plan.flow, samples);
    MeasureIdleClients(injector, plan.flow, samples);
}

int Main(int argc, char** argv) {
    CLI::App app("Measures what a delivered record costs, beside two peers", "bench");
    bool isQuick = false;
    int runs = 1;
    app.add_flag("--quick", isQuick, "A fraction of a second each: shows only whether it all runs");
    app.add_option("--runs", runs, "Repeat, and print medians")->check(CLI::PositiveNumber);
    CLI11_PARSE(app, argc, argv);

    // The tests' support tells what fails as a test would.
    GTEST_FLAG_SET(throw_on_failure, true);
    RecordInjector injector(RING_CORE);
    Samples samples;
    for (int run = 0; run < runs; ++run) {
        Run(injector, isQuick ? QUICK : Plan(), samples);
    }
    PrintReport(samples);
    return 0;
}

}  // namespace
}  // namespace Tesu::Bpf

int main(int argc, char** argv) {
    try {
        return Tesu::Bpf::Main(argc, argv);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "bench: %s\n", error.what());
        return 1;
    }
}
