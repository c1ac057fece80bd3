// SPDX-License-Identifier: Apache-2.0
#include "client/status/status.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <iterator>
#include <nlohmann/json.hpp>

#include "client/events/event_names.h"
#include "client/exit_status.h"
#include "client/status/status_request.h"
#include "client/text/output.h"
#include "client/text/terminal_text.h"
#include "client/text/units.h"
#include "proc/proc_files.h"
#include "records/event_table.h"
#include "util/monotonic_clock.h"
#include "util/string_util.h"

namespace Tesu::Bpf {

namespace {

using Json = nlohmann::ordered_json;

constexpr const char* MONITOR_NAMES[] = {"not started", "running", "stopped", "FAILED"};

std::string NameOfRing(int32_t ring) {
    const char* const name = RingName(ring);
    return name != nullptr ? name : std::to_string(ring);
}

std::string NameOfMonitor(int32_t state) {
    const bool isKnown = state >= 0 && state < static_cast<int32_t>(std::size(MONITOR_NAMES));
    return isKnown ? MONITOR_NAMES[state] : std::to_string(state);
}

// As the kernel has it, any bytes; empty for one that has gone.
std::string ProcessName(int32_t pid) {
    std::string name;
    if (ReadProcFile(ProcPath("/proc", std::to_string(pid), "comm"), &name) &&
        name.ends_with('\n')) {
        name.pop_back();
    }
    return name;
}

std::string TypeNames(const std::vector<int32_t>& types) {
    std::string names;
    for (const int32_t type : types) {
        names += (names.empty() ? "" : ",") + EventTypeName(static_cast<uint32_t>(type));
    }
    return names.empty() ? "none" : names;
}

std::string FormatText(const StatusReport& report) {
    const ServiceStatus& service = report.service;
    std::string text =
        StringPrintf("tesubpf service %s, pid %d, up %s, %s queued for clients\n",
                     EscapeForTerminal(FieldText(service.version)).c_str(), service.pid,
                     FormatDuration(MonotonicNanoseconds() - service.startTime).c_str(),
                     FormatBytes(static_cast<int64_t>(service.queueBytes)).c_str());
    size_t attached = 0;
    std::string missing;
    for (const ProgramStatus& program : report.programs) {
        if (program.isAttached != 0) {
            ++attached;
        } else {
            missing += "\n  not attached: " + EscapeForTerminal(FieldText(program.event));
        }
    }
    text += StringPrintf("%zu of %zu programs attached%s\n\n", attached, report.programs.size(),
                         missing.c_str());
    text += StringPrintf("%-5s %-11s %8s %14s %12s %8s\n", "RING", "MONITOR", "SIZE", "TAKEN",
                         "LOST", "FULLEST");
    for (const RingStatus& ring : report.rings) {
        text += StringPrintf(
            "%-5s %-11s %8s %14llu %12llu %7.0f%%\n", NameOfRing(ring.ring).c_str(),
            NameOfMonitor(ring.monitor).c_str(),
            FormatBytes(static_cast<int64_t>(ring.size)).c_str(),
            static_cast<unsigned long long>(ring.taken), static_cast<unsigned long long>(ring.lost),
            ring.size == 0
                ? 0.0
                : 100.0 * static_cast<double>(ring.fullest) / static_cast<double>(ring.size));
    }
    text += StringPrintf("\n%8s %6s %-15s %9s %9s %12s %8s  %s\n", "PID", "UID", "CLIENT", "QUEUED",
                         "PACKAGES", "SENT", "DROPPED", "SUBSCRIPTIONS");
    for (const auto& [client, types] : report.clients) {
        text += StringPrintf(
            "%8d %6d %s %9s %9llu %12llu %8llu  %s\n", client.pid, static_cast<int32_t>(client.uid),
            FitToWidth(ProcessName(client.pid), 15).c_str(),
            FormatBytes(static_cast<int64_t>(client.queuedBytes)).c_str(),
            static_cast<unsigned long long>(client.queuedPackages),
            static_cast<unsigned long long>(client.sentPackages),
            static_cast<unsigned long long>(client.droppedPackages), TypeNames(types).c_str());
    }
    return text;
}

std::string FormatJson(const StatusReport& report) {
    const ServiceStatus& service = report.service;
    Json json = {{"version", FieldText(service.version)},
                 {"pid", service.pid},
                 {"up_ns", MonotonicNanoseconds() - service.startTime},
                 {"queue_bytes", service.queueBytes},
                 {"programs", Json::array()},
                 {"rings", Json::array()},
                 {"clients", Json::array()}};
    for (const ProgramStatus& program : report.programs) {
        json["programs"].push_back({{"object", FieldText(program.object)},
                                    {"event", FieldText(program.event)},
                                    {"attached", program.isAttached != 0}});
    }
    for (const RingStatus& ring : report.rings) {
        json["rings"].push_back({{"ring", NameOfRing(ring.ring)},
                                 {"monitor", NameOfMonitor(ring.monitor)},
                                 {"size", ring.size},
                                 {"taken", ring.taken},
                                 {"lost", ring.lost},
                                 {"fullest", ring.fullest}});
    }
    for (const auto& [client, types] : report.clients) {
        json["clients"].push_back({{"pid", client.pid},
                                   {"uid", static_cast<int32_t>(client.uid)},
                                   {"name", ProcessName(client.pid)},
                                   {"types", types},
                                   {"queued_bytes", client.queuedBytes},
                                   {"queued_packages", client.queuedPackages},
                                   {"sent_packages", client.sentPackages},
                                   {"dropped_packages", client.droppedPackages}});
    }
    return json.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
}

}  // namespace

int RunStatus(const std::string& socketName, bool asJson, const TerminationSignals& signals) {
    const Result<StatusReport> report = RequestStatus(socketName);
    if (!report) {
        return Fail(EXIT_NOT_SERVED, report.error());
    }
    const std::string text = asJson ? FormatJson(*report) : FormatText(*report);
    if (WriteUntilStopped(STDOUT_FILENO, text, signals.fd()) == WriteResult::FAILED) {
        return Fail(EXIT_FAILED, std::string("cannot write: ") + strerror(errno));
    }
    return EXIT_OK;
}

}  // namespace Tesu::Bpf
