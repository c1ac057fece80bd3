// SPDX-License-Identifier: Apache-2.0
#include "bench/delivery/report.h"

#include <algorithm>
#include <cstdio>

#include "util/string_util.h"

namespace Tesu::Bpf {

double Samples::median(const std::string& name) const {
    std::vector<double> sorted = values.at(name);
    std::ranges::sort(sorted);
    const size_t middle = sorted.size() / 2;
    return sorted.size() % 2 == 1 ? sorted[middle] : (sorted[middle - 1] + sorted[middle]) / 2;
}

std::string CaseName(ServerKind kind, uint64_t rate, int clients) {
    const std::string rateText = rate == UNLIMITED ? "as fast as it goes" : std::to_string(rate);
    return StringPrintf("%s, %s x %d", NameOf(kind), rateText.c_str(), clients);
}

namespace {

void PrintCosts(const Samples& samples) {
    std::printf("CPU time of the server per delivery, ns\n");
    std::printf("%10s %8s %9s %9s %9s %12s %9s   %s\n", "records/s", "clients", "ours", "ZeroMQ",
                "raw", "ours/ZeroMQ", "ours/raw", "records lost: ours, ZeroMQ, raw");
    for (const uint64_t rate : RATES) {
        for (const int clients : CLIENT_COUNTS) {
            double costs[3];
            double lost[3];
            for (const ServerKind kind : SERVERS) {
                const std::string name = CaseName(kind, rate, clients);
                costs[static_cast<size_t>(kind)] = samples.median(name + COST);
                lost[static_cast<size_t>(kind)] = samples.median(name + LOST);
            }
            std::printf("%10llu %8d %9.0f %9.0f %9.0f %12.2f %9.2f   %.0f, %.0f, %.0f\n",
                        static_cast<unsigned long long>(rate), clients, costs[0], costs[1],
                        costs[2], costs[0] / costs[1], costs[0] / costs[2], lost[0], lost[1],
                        lost[2]);
        }
    }
}

}  // namespace

void PrintReport(const Samples& samples) {
    PrintCosts(samples);
    std::printf("\nAs fast as it goes x 1 client, delivered records/s:");
    for (const ServerKind kind : SERVERS) {
        const std::string name = CaseName(kind, UNLIMITED, 1);
        std::printf("%s %s %.1f M (%.0f %% lost)", kind == SERVERS[0] ? "" : ",", NameOf(kind),
                    samples.median(name + DELIVERED) / 1e6, samples.median(name + LOST_SHARE));
    }
    std::printf("\nLatency of ours, us: alone (every %llu ms): median %.0f, 99.9 %% %.0f\n",
                static_cast<unsigned long long>(1000 / ALONE_RATE),
                samples.median(ALONE + LATENCY_MEDIAN), samples.median(ALONE + LATENCY_999));
    std::printf("Latency of ours, us: in a flow of %llu/s: 99 %% %.0f, most %.0f\n",
                static_cast<unsigned long long>(FLOW_RATE), samples.median(IN_FLOW + LATENCY_99),
                samples.median(IN_FLOW + LATENCY_MOST));
    std::printf(
        "%d idle clients of ours: %.0f ns of CPU per record, %.0f without them (%llu/s x 1 "
        "client); %.1f KiB resident each\n",
        IDLE_CLIENTS, samples.median(WITH_IDLE), samples.median(WITHOUT_IDLE),
        static_cast<unsigned long long>(IDLE_RATE), samples.median(IDLE_KIB));
}

}  // namespace Tesu::Bpf
