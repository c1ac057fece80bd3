// SPDX-License-Identifier: Apache-2.0
//
// The figures of all runs, and the text that shows their medians.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "benchmarks/delivery/measurement.h"

namespace Tesu::Bpf {

// The one list of what is measured.
inline constexpr uint64_t RATES[] = {5000, 50000, 300000};  // records a second
inline constexpr int CLIENT_COUNTS[] = {1, 8, 32};

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

void PrintReport(const Samples& samples);

}  // namespace Tesu::Bpf
