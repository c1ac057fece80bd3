// SPDX-License-Identifier: Apache-2.0
#include "client/metrics/fleet_metrics.h"

#include <algorithm>
#include <iterator>
#include <optional>
#include <utility>
#include <variant>

#include "model/crash_loops.h"

namespace Tesu::Bpf {

namespace {

using prometheus::ClientMetric;
using prometheus::MetricFamily;
using prometheus::MetricType;

ClientMetric Sample(double value, std::vector<ClientMetric::Label> labels = {}) {
    ClientMetric sample;
    sample.label = std::move(labels);
    // The type of the family decides which of them counts.
    sample.counter.value = sample.gauge.value = value;
    return sample;
}

std::vector<ClientMetric> SamplesBy(const char* label,
                                    const std::map<std::string, uint64_t>& values) {
    std::vector<ClientMetric> samples;
    samples.reserve(values.size());
    for (const auto& [name, value] : values) {
        samples.push_back(Sample(static_cast<double>(value), {{label, name}}));
    }
    return samples;
}

void Add(std::vector<MetricFamily>* families, MetricType type, const char* name, const char* help,
         std::vector<ClientMetric> samples) {
    if (!samples.empty()) {
        families->push_back({name, help, type, std::move(samples)});
    }
}

// A series for each name. Those of one family stand together.
struct NameSeries {
    const char* family;
    const char* kind;  // nullptr: without such a label
    MetricType type;
    const char* help;
    std::optional<double> (*value)(const NameFigures& figures);
};

template <auto Member>
std::optional<double> Value(const NameFigures& figures) {
    return static_cast<double>(figures.*Member);
}

template <RssMember Member>
std::optional<double> Memory(const NameFigures& figures) {
    return static_cast<double>(figures.memory[Member]);
}

std::optional<double> OpenFds(const NameFigures& figures) {
    return figures.areFdsKnown ? Value<&NameFigures::openFds>(figures) : std::nullopt;
}

constexpr const char* RESIDENT = "tesubpf_name_resident_memory_bytes";
constexpr const char* RESIDENT_HELP = "Resident memory of the processes of this name.";

constexpr NameSeries GAUGES[] = {
    {"tesubpf_name_processes", nullptr, MetricType::Gauge, "Processes of this name.",
     Value<&NameFigures::processes>},
    {"tesubpf_name_threads", nullptr, MetricType::Gauge, "Threads of the processes of this name.",
     Value<&NameFigures::threads>},
    {"tesubpf_name_open_fds", nullptr, MetricType::Gauge,
     "Open descriptors of the processes of this name, where all of them are known.", OpenFds},
    {RESIDENT, "anon", MetricType::Gauge, RESIDENT_HELP, Memory<RSS_ANON>},
    {RESIDENT, "file", MetricType::Gauge, RESIDENT_HELP, Memory<RSS_FILE>},
    {RESIDENT, "shmem", MetricType::Gauge, RESIDENT_HELP, Memory<RSS_SHMEM>},
    {"tesubpf_name_swap_bytes", nullptr, MetricType::Gauge,
     "Swapped memory of the processes of this name.", Memory<RSS_SWAP>},
    {"tesubpf_name_largest_resident_memory_bytes", nullptr, MetricType::Gauge,
     "Resident memory of the largest process of this name.", Value<&NameFigures::largestResident>},
};

constexpr NameSeries COUNTERS[] = {
    {"tesubpf_name_process_exits_total", nullptr, MetricType::Counter,
     "Processes that ended with this name.", Value<&NameFigures::exits>},
    {"tesubpf_name_young_exits_total", nullptr, MetricType::Counter,
     "Processes that ended with this name within 10 seconds of their start.",
     Value<&NameFigures::youngExits>},
};

template <size_t N>
void AddSeries(std::vector<MetricFamily>* families, const NameSeries (&table)[N],
               const NamedFigures& names) {
    for (const NameSeries& series : table) {
        std::vector<ClientMetric> samples;
        for (const auto& [name, figures] : names.figures()) {
            const std::optional<double> value = series.value(figures);
            if (value && series.kind != nullptr) {
                samples.push_back(Sample(*value, {{"name", name}, {"kind", series.kind}}));
            } else if (value) {
                samples.push_back(Sample(*value, {{"name", name}}));
            }
        }
        if (!families->empty() && families->back().name == series.family) {
            std::ranges::move(samples, std::back_inserter(families->back().metric));
        } else {
            Add(families, series.type, series.family, series.help, std::move(samples));
        }
    }
}

std::string NameOfType(uint32_t type) {
    const char* const name = tesubpf_type_name(type);
    return name != nullptr ? name : "unknown";
}

}  // namespace

FleetMetrics::FleetMetrics(NamedFigures names) : names(std::move(names)) {
    for (const uint32_t type : LiveProcesses::TYPES) {
        events[NameOfType(type)] = 0;
    }
}

void FleetMetrics::take(const tesubpf_event& item, const Event* record, const ProcessModel& model) {
    if (record == nullptr) {
        onNews(item);
    } else {
        ++events[NameOfType(item.type)];
        onRecord(*record, item.received, model);
    }
}

void FleetMetrics::onNews(const tesubpf_event& item) {
    if (item.kind == TESUBPF_REFUSED) {
        ++refused;
    } else if (item.kind == TESUBPF_SUBSCRIBED) {
        up = refused < std::size(LiveProcesses::TYPES);
    } else if (item.kind == TESUBPF_CONNECTED || item.kind == TESUBPF_LOST) {
        connections += item.kind == TESUBPF_CONNECTED ? 1 : 0;
        up = isSurveyed = false;
        refused = 0;
        lost.clear();
    }
}

void FleetMetrics::onRecord(const Event& record, int64_t now, const ProcessModel& model) {
    if (const auto* const create = std::get_if<RawTaskCreateEvent>(&record)) {
        ++(create->taskType == RAW_TASK_THREAD ? threads : processes).starts;
    } else if (const auto* const exit = std::get_if<RawTaskExitEvent>(&record)) {
        const bool isThread = exit->taskType == RAW_TASK_THREAD;
        ++(isThread ? threads : processes).exits;
        if (!isThread) {
            const std::optional<ProcessModel::Ending> ending = model.endingOf(*exit);
            names.addExit(FieldText(exit->comm), ending && ending->isKernelThread,
                          ending && ending->lifetime <= CrashLoops::SHORT_LIFE, now);
        }
    } else if (const auto* const losses = std::get_if<RecordsLostNotification>(&record)) {
        noteLost(losses->ring, losses->total);
    }
}

void FleetMetrics::takeStatus(const StatusReport& report) {
    for (const RingStatus& ring : report.rings) {
        if (ring.size != 0) {
            noteLost(ring.ring, ring.lost);
        }
    }
}

// What was on its way when the status was answered may say less than it.
void FleetMetrics::noteLost(int32_t ring, uint64_t total) {
    if (const char* const name = RingName(ring); name != nullptr) {
        lost[name] = std::max(lost[name], total);
    }
}

void FleetMetrics::survey(const ProcessModel& model, int64_t now) {
    if (up) {
        names.survey(model, now);
        isSurveyed = true;
    }
}

void FleetMetrics::addMachine(std::vector<MetricFamily>* families) const {
    const auto add = [families](MetricType type, const char* name, const char* help, auto value) {
        Add(families, type, name, help, {Sample(static_cast<double>(value))});
    };
    const auto addCounter = [&add](const char* name, const char* help, uint64_t value) {
        add(MetricType::Counter, name, help, value);
    };
    Add(families, MetricType::Gauge, "tesubpf_build_info", "The version, as a label.",
        {Sample(1, {{"version", TESUBPF_VERSION}})});
    add(MetricType::Gauge, "tesubpf_up", "Whether the daemon sends its events.", up ? 1 : 0);
    addCounter("tesubpf_reconnects_total", "Connections to the daemon after the first.",
               connections - std::min<uint64_t>(connections, 1));
    Add(families, MetricType::Counter, "tesubpf_events_total", "Events received, by type.",
        SamplesBy("type", events));
    Add(families, MetricType::Counter, "tesubpf_lost_records_total",
        "Records lost since the programs were loaded, by ring buffer; absent while not known.",
        SamplesBy("ring", lost));
    addCounter("tesubpf_process_starts_total", "Processes that started.", processes.starts);
    addCounter("tesubpf_process_exits_total", "Processes that ended.", processes.exits);
    addCounter("tesubpf_thread_starts_total", "Threads that started in processes.", threads.starts);
    addCounter("tesubpf_thread_exits_total", "Threads that ended in processes.", threads.exits);
    addCounter("tesubpf_names_dropped_total", "Names that found no place and count as \"other\".",
               names.namesDropped());
    if (!isSurveyed) {
        return;
    }
    int64_t all = 0;
    int64_t allThreads = 0;
    int64_t kernelThreads = 0;
    for (const auto& [name, figures] : names.figures()) {
        const bool isKernel = name == NamedFigures::KERNEL;
        all += isKernel ? 0 : figures.processes;
        allThreads += isKernel ? 0 : figures.threads;
        kernelThreads += isKernel ? figures.processes : 0;
    }
    add(MetricType::Gauge, "tesubpf_processes", "Processes, without the kernel's threads.", all);
    add(MetricType::Gauge, "tesubpf_threads", "Threads of processes.", allThreads);
    add(MetricType::Gauge, "tesubpf_kernel_threads", "Threads of the kernel's own.", kernelThreads);
}

std::vector<MetricFamily> FleetMetrics::families() const {
    std::vector<MetricFamily> families;
    addMachine(&families);
    if (isSurveyed) {
        AddSeries(&families, GAUGES, names);
    }
    AddSeries(&families, COUNTERS, names);
    return families;
}

}  // namespace Tesu::Bpf
