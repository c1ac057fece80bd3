// SPDX-License-Identifier: Apache-2.0
//
// What `tesubpf metrics` says of this machine, as families of metrics: counted from events, sized
// up from a model. What is not known is absent, never 0.
//
// Pure but for LiveProcesses' model that is handed in; used by one thread at a time. Times are
// monotonic nanoseconds.
#pragma once

#include <prometheus/metric_family.h>

#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "client/live/live_processes.h"
#include "client/metrics/named_figures.h"
#include "client/status/status_request.h"

namespace Tesu::Bpf {

class FleetMetrics {
  public:
    explicit FleetMetrics(NamedFigures names);

    // Each event, before the model knows it; null: it is no record.
    void take(const tesubpf_event& item, const Event* record, const ProcessModel& model);

    // What the service of this connection answered: losses are known before the first one is told.
    void takeStatus(const StatusReport& report);

    // Whether the subscriptions of this connection stand.
    bool isUp() const { return up; }

    // Does nothing without a service, when nobody knows who lives.
    void survey(const ProcessModel& model, int64_t now);

    // As of the last survey.
    std::vector<prometheus::MetricFamily> families() const;

  private:
    void onNews(const tesubpf_event& item);
    void onRecord(const Event& record, int64_t now, const ProcessModel& model);
    void noteLost(int32_t ring, uint64_t total);
    void addMachine(std::vector<prometheus::MetricFamily>* families) const;
    void addNames(std::vector<prometheus::MetricFamily>* families) const;

    bool up = false;
    bool isSurveyed = false;  // since there is this connection
    uint64_t connections = 0;
    size_t refused = 0;  // subscriptions of this connection
    std::map<std::string, uint64_t> events;
    std::map<std::string, uint64_t> lost;  // by ring, since the programs were loaded
    struct Counts {
        uint64_t starts = 0;
        uint64_t exits = 0;
    };
    Counts processes;
    Counts threads;
    NamedFigures names;
};

}  // namespace Tesu::Bpf
