// SPDX-License-Identifier: Apache-2.0
//
// The figures of all runs, and the text that shows their medians.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "bench/delivery/measurement.h"

namespace Tesu::Bpf {

// The one list of what is measured. Rates are records a second.
inline constexpr uint64_t RATES[] = {5000, 50000, 300000};
inline constexpr int CLIENT_COUNTS[] = {1, 8, 32};
inline constexpr uint64_t UNLIMITED = 0;
inline constexpr uint64_t ALONE_RATE = 100;
inline constexpr uint64_t FLOW_RATE = 50000;
inline constexpr uint64_t IDLE_RATE = 50000;
inline constexpr int IDLE_CLIENTS = 1000;

// Figures by name, as often as there were runs.
class Samples {
  public:
    void add(const std::string& name, double value) { values[name].push_back(value); }
    double median(const std::string& name) const;

  private:
    std::map<std::string, std::vector<double>> values;
};

// The names under which the outcomes of a server's cases are kept.
std::string CaseName(ServerKind kind, uint64_t rate, int clients);
inline const std::string COST = " cost";          // ns of CPU per delivery
inline const std::string LOST = " lost";          // records
inline const std::string LOST_SHARE = " share";   // % of those injected
inline const std::string DELIVERED = " through";  // records a second

// The names of the other figures. Latencies are microseconds.
inline const std::string ALONE = "latency alone";
inline const std::string IN_FLOW = "latency in a flow";
inline const std::string LATENCY_MEDIAN = " median";
inline const std::string LATENCY_99 = " 99 %";
inline const std::string LATENCY_999 = " 99.9 %";
inline const std::string LATENCY_MOST = " most";
inline const std::string WITHOUT_IDLE = "cost without idle clients";  // ns of CPU per record
inline const std::string WITH_IDLE = "cost with idle clients";
inline const std::string IDLE_KIB = "resident memory of an idle client";

void PrintReport(const Samples& samples);

}  // namespace Tesu::Bpf
