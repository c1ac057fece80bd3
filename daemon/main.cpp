// SPDX-License-Identifier: Apache-2.0
//
// tesubpfd: the host daemon. It gives the service the surroundings that it has on a device (system
// properties, the folder for dumps), starts it, and ends it on SIGINT or SIGTERM. It mounts nothing
// and loads nothing.
#include <android-base/properties.h>
#include <android-base/unique_fd.h>
#include <malloc.h>
#include <poll.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "daemon/host_files.h"
#include "daemon/instance_lock.h"
#include "daemon/pin_check.h"
#include "daemon/properties.h"
#include "daemon/service_manager.h"
#include "daemon/stderr_log.h"
#include "ipc/local_socket.h"
#include "records/contract.h"
#include "service/bpf_program.h"
#include "service/host_defaults.h"
#include "service/tesu_bpf_service.h"
#include "util/run_program.h"
#include "util/string_util.h"
#include "util/termination_signals.h"

namespace Tesu::Bpf {

namespace {

enum DaemonStatus {
    DAEMON_ENDED = 0,
    DAEMON_FAILED = 1,
    DAEMON_USAGE = 2,
    DAEMON_ALREADY_SERVED = 3,
    DAEMON_DISABLED = 4,
    DAEMON_TO_BE_RESTARTED = EXIT_TO_BE_RESTARTED,
};

constexpr const char* FOOTER =
    R"(Exit status: 0 ended by SIGINT or SIGTERM; 1 failed; 2 wrong usage; 3 another daemon runs
already; 4 the service is disabled by its property; 5 to be started again: a ring buffer
is not read any more, or other programs were pinned.

Dumps on request, by signal to this process: 50 event counters, 51 to 54 task table.)";

constexpr std::chrono::milliseconds PIN_INTERVAL{500};
constexpr std::chrono::milliseconds SERVING_INTERVAL{10};
constexpr std::chrono::seconds SERVING_NOTICE{5};
constexpr int BEGIN_INTERVAL_MS = 100;

// Everything the service reads must be there before it starts. False when a property is refused.
bool PrepareHost(const Properties& properties) {
    for (const auto& [name, value] : properties) {
        if (!android::base::SetProperty(name, value)) {
            std::fprintf(stderr, "tesubpfd: the property \"%s\" cannot be set to \"%s\"\n",
                         name.c_str(), value.c_str());
            return false;
        }
    }
    SetHostDefaults();
    const std::string dumps = android::base::GetProperty(DUMP_DIR_PROPERTY, DUMP_DIR);
    if (const std::error_code error = MakeParents(dumps)) {
        std::fprintf(stderr, "tesubpfd: warning: no dumps can be written to %s: %s\n",
                     dumps.c_str(), error.message().c_str());
    }
    return true;
}

// Nothing once something is pinned; otherwise the status with which to end.
std::optional<DaemonStatus> WaitForPins(const TerminationSignals& signals) {
    for (bool isReported = false; !HasPins(PIN_DIR); isReported = true) {
        if (errno != ENOENT) {
            std::fprintf(stderr, "tesubpfd: cannot look into %s: %s\n", PIN_DIR, strerror(errno));
            return DAEMON_FAILED;
        }
        if (!isReported) {
            std::fprintf(
                stderr,
                "tesubpfd: no eBPF maps are pinned under %s; waiting for them (tesubpfload "
                "loads them)\n",
                PIN_DIR);
        }
        if (signals.wait(PIN_INTERVAL)) {
            return DAEMON_ENDED;
        }
    }
    return std::nullopt;
}

// The socket is made on a thread of the service. Says so once clients can connect, or returns
// silently after a signal.
void AnnounceServing(const TerminationSignals& signals) {
    const auto noticeTime = std::chrono::steady_clock::now() + SERVING_NOTICE;
    bool isReported = false;
    while (!IsServiceListening(SERVICE_SOCKET_NAME)) {
        if (!isReported && std::chrono::steady_clock::now() >= noticeTime) {
            std::fprintf(stderr, "tesubpfd: the socket @%s is not there yet\n",
                         SERVICE_SOCKET_NAME);
            isReported = true;
        }
        if (signals.wait(SERVING_INTERVAL)) {
            return;
        }
    }
    std::printf("serving on @%s\n", SERVICE_SOCKET_NAME);
    std::fflush(stdout);
}

// Whether what is to be attached was tried, and the monitors of the rings to be read have begun.
bool HasBegun(const TesuBpfService& service) {
    return service.ringStatus(RING_CORE).monitor != RING_MONITOR_NOT_STARTED &&
           (!TesuBpfService::checkKernelVersion() ||
            service.ringStatus(RING_GPL).monitor != RING_MONITOR_NOT_STARTED);
}

// In one line.
std::string Describe(const std::vector<BpfProgramState>& programs) {
    size_t attached = 0;
    std::string missing;
    for (const BpfProgramState& program : programs) {
        attached += program.isAttached ? 1 : 0;
        missing += program.isAttached ? "" : (missing.empty() ? "; not: " : ", ") + program.event;
    }
    return StringPrintf("%zu of %zu programs attached", attached, programs.size()) + missing;
}

// Until a signal comes or the service asks for a restart. Tells the service's manager when events
// come. False, at once, when none can come.
bool WaitForEnd(const TerminationSignals& signals, const TesuBpfService& service) {
    pollfd waited[] = {{.fd = signals.fd(), .events = POLLIN, .revents = 0},
                       {.fd = service.restartFd(), .events = POLLIN, .revents = 0}};
    bool isTold = false;
    do {
        if (!isTold && HasBegun(service)) {
            const std::vector<BpfProgramState> programs = GetBpfProgramStates();
            if (std::none_of(programs.begin(), programs.end(),
                             [](const BpfProgramState& program) { return program.isAttached; })) {
                return false;
            }
            NotifyServiceManager("READY=1\nSTATUS=" + Describe(programs));
            isTold = true;
        }  // poll() also returns for a dump's signal
    } while (poll(waited, std::size(waited), isTold ? -1 : BEGIN_INTERVAL_MS) <= 0);
    NotifyServiceManager("STOPPING=1");
    return true;
}

// Runs the service.
int Serve(const TerminationSignals& signals) {
    LogWithoutWaiting();
    if (!BpfServiceMain()) {
        const bool isDisabled = android::base::GetProperty(DISABLE_PROPERTY, "0") == "1";
        std::fprintf(stderr, "tesubpfd: the service %s\n",
                     isDisabled ? "is disabled by its property" : "was stopped before");
        return isDisabled ? DAEMON_DISABLED : DAEMON_FAILED;
    }
    TesuBpfService* const service = TesuBpfService::GetInstance();
    std::thread supervisor([service] { service->Wait(); });
    AnnounceServing(signals);
    const bool hasServed = WaitForEnd(signals, *service);
    const std::string reason = service->restartReason();
    service->stop();
    supervisor.join();
    if (!hasServed) {
        std::fprintf(stderr, "tesubpfd: no program could be attached; the log above says why\n");
        return DAEMON_FAILED;
    }
    if (reason.empty()) {
        return DAEMON_ENDED;
    }
    std::fprintf(stderr, "tesubpfd: %s: ending, to be started again\n", reason.c_str());
    return DAEMON_TO_BE_RESTARTED;
}

bool IsSet(const Properties& properties, const char* name, const std::string& value) {
    const auto found = properties.find(name);
    return found != properties.end() && found->second == value;
}

// Nothing when the service can begin, or will wait for readiness by itself; otherwise the status
// with which to end.
std::optional<DaemonStatus> WaitUntilUsable(Properties& properties,
                                            const TerminationSignals& signals) {
    if (IsSet(properties, DISABLE_PROPERTY, "1") || IsSet(properties, READY_PROPERTY, "0")) {
        return std::nullopt;
    }
    Result<> usable = CheckBpfAccess(PIN_DIR);
    if (usable && !properties.contains(READY_PROPERTY)) {
        if (const auto end = WaitForPins(signals)) {
            return end;
        }
        properties[READY_PROPERTY] = "1";
    }
    if (usable) {
        usable = CheckPins(PIN_DIR, IsSet(properties, KERNEL_VERSION_PROPERTY, "6.1"));
    }
    if (!usable) {
        std::fprintf(stderr, "tesubpfd: %s\n", usable.error().c_str());
        return DAEMON_FAILED;
    }
    return std::nullopt;
}

int Run(Properties properties, const TerminationSignals& signals) {
    const android::base::unique_fd lock = AcquireInstanceLock(INSTANCE_LOCK_NAME);
    if (lock.get() == -1 && errno != EADDRINUSE) {
        std::fprintf(stderr, "tesubpfd: cannot take the lock @%s: %s\n", INSTANCE_LOCK_NAME,
                     strerror(errno));
        return DAEMON_FAILED;
    }
    // Another host of the service knows nothing of the lock, but it serves the socket.
    if (lock.get() == -1 || IsServiceListening(SERVICE_SOCKET_NAME)) {
        std::fprintf(stderr, "tesubpfd: another daemon runs already (socket @%s)\n",
                     SERVICE_SOCKET_NAME);
        return DAEMON_ALREADY_SERVED;
    }
    properties.try_emplace(KERNEL_VERSION_PROPERTY, RunningKernelVersion());
    if (const auto end = WaitUntilUsable(properties, signals)) {
        return *end;
    }
    return PrepareHost(properties) ? Serve(signals) : DAEMON_FAILED;
}

int Main(int argc, char** argv) {
    // A dump's text is large and rare: its memory goes back to the system. Otherwise the limit
    // rises with the first one and the daemon keeps the memory.
    mallopt(M_MMAP_THRESHOLD, 128 * 1024);
    const TerminationSignals signals;
    CLI::App app("Runs the eBPF task service on this machine", "tesubpfd");
    app.set_version_flag("--version", "tesubpfd " TESUBPF_VERSION);
    std::vector<std::string> settings;
    app.add_option(
           "-p,--property", settings,
           "Set the system property NAME=VALUE for the service; may be repeated.\n"
           "  ro.kernel.version  default: the running kernel's, \"6.18\" for example;\n"
           "                     \"6.1\" switches the GPL set of programs on\n"
           "  sys.tesu_bpf_ready default: \"1\" once the eBPF maps are pinned, for which the\n"
           "                     daemon waits; given here, it does not wait\n"
           "  sys.tesu_bpf_watch_pins  seconds between two looks whether other programs were\n"
           "                     pinned, for which the daemon ends; default: 10, \"0\": never\n"
           "  sys.tesu_bpf_mend_table  seconds between two comparisons of the task table with\n"
           "                     /proc, by which it is put right where records were lost;\n"
           "                     default: 60, \"0\": never\n"
           "  persist.sys.stability.bpfframework.disable  \"1\" disables the service\n"
           "and under persist.sys.stability.bpfframework, \"0\" for no limit:\n"
           "  client_queue_bytes most that is kept for a client that does not read; default\n"
           "                     16777216; one that has more is disconnected\n"
           "  queue_bytes        the same for all clients together; default 67108864\n"
           "  client_types       event types of one client; default 256\n"
           "  clients            clients at a time; default 256\n"
           "  client_uids        user ids that may connect, \"0,1000\"; default: everybody\n"
           "  client_gids        group ids whose members may, too; default: everybody\n"
           "  dump_dir           folder for dumps; default: " +
               std::string(DUMP_DIR))
        ->allow_extra_args(false)
        ->type_name("NAME=VALUE");
    std::vector<std::string> groups;
    app.add_option("-g,--client-group", groups,
                   "Only root and members of this group may connect; may be repeated")
        ->allow_extra_args(false)
        ->type_name("GROUP");
    app.footer(FOOTER);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? DAEMON_ENDED : DAEMON_USAGE;
    }
    Result<Properties> properties = ParseProperties(settings);
    for (const std::string& group : groups) {
        if (const Result<> admitted = properties ? AdmitGroup(group, &*properties) : Result<>();
            !admitted) {
            properties = Failure(admitted.error());
        }
    }
    if (!properties) {
        std::fprintf(stderr, "tesubpfd: %s\n", properties.error().c_str());
        return DAEMON_USAGE;
    }
    return Run(*properties, signals);
}

}  // namespace

}  // namespace Tesu::Bpf

int main(int argc, char** argv) {
    return Tesu::Bpf::RunProgram("tesubpfd", Tesu::Bpf::Main, argc, argv);
}
