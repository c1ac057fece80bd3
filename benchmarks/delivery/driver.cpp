// SPDX-License-Identifier: Apache-2.0
//
// What a delivered record costs the service, beside two peers that read the same ring buffer: one
// made with ZeroMQ, and one that does the least that can be done. Expects the programs to be loaded
// and no daemon to run; ../../bench sees to both.
#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdio>
#include <exception>
#include <string>

#include "benchmarks/delivery/measurement.h"
#include "benchmarks/delivery/report.h"

namespace Tesu::Bpf {
namespace {

using std::chrono::milliseconds;

struct Durations {
    milliseconds flow{2000};
};
constexpr Durations QUICK{.flow = milliseconds(100)};

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

void Run(RecordInjector& injector, const Durations& durations, Samples& samples) {
    for (const uint64_t rate : RATES) {
        for (const int clients : CLIENT_COUNTS) {
            // One after the other, so that they meet the machine in the same mood.
            for (const ServerKind kind : SERVERS) {
                MeasureCase(injector, kind, {.rate = rate, .duration = durations.flow}, clients,
                            samples);
            }
        }
    }
}

int Main(int argc, char** argv) {
    CLI::App app("Measures what a delivered record costs, beside two peers", "bench");
    bool isQuick = false;
    int runs = 1;
    app.add_flag("--quick", isQuick, "A fraction of a second each: shows only whether it all runs");
    app.add_option("--runs", runs, "Repeat, and print medians")->check(CLI::PositiveNumber);
    CLI11_PARSE(app, argc, argv);

    RecordInjector injector(RING_CORE);
    Samples samples;
    for (int run = 0; run < runs; ++run) {
        Run(injector, isQuick ? QUICK : Durations(), samples);
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
