// SPDX-License-Identifier: Apache-2.0
//
// tesubpf: the client for people and scripts.
#include <fcntl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <vector>

#include "client/dump/dump.h"
#include "client/events/event_names.h"
#include "client/exit_status.h"
#include "client/export/export.h"
#include "client/metrics/metrics.h"
#include "client/replay/info.h"
#include "client/replay/replay_time.h"
#include "client/status/status.h"
#include "client/text/terminal_text.h"
#include "client/top/columns.h"
#include "client/top/top.h"
#include "client/watch/watch.h"
#include "recording/recorder.h"
#include "records/contract.h"
#include "util/run_program.h"
#include "util/termination_signals.h"

namespace Tesu::Bpf {

namespace {

constexpr const char* WATCH_FOOTER = R"(
Text lines: time is the kernel's monotonic clock in seconds; "~" marks the time of receipt, for
events that carry none. fork and exit are processes, thread+ and thread- threads of PID's process.

Exit status: 0 ended as asked (time, count, signal, reader gone); 1 never connected to a daemon, or
it refused every subscription; 2 wrong usage, or no recording; 3 the output could not be written.)";

constexpr const char* DUMP_FOOTER = R"(
Asks the daemon by signal, for which it takes the same user or root, and prints the file that it
writes.

Exit status: 0 printed; 1 no daemon, or it gave no dump; 2 wrong usage; 3 the output could not be
written.)";

constexpr const char* STATUS_FOOTER = R"(
RING: records TAKEN since the daemon started, LOST since the programs were loaded because the ring was
full, and how full it ever was. CLIENT: what is QUEUED for it, how many events it was SENT, and how many
were DROPPED because memory had run out. A client that is too slow is disconnected.

Exit status: 0 printed; 1 no daemon, or it does not report; 2 wrong usage; 3 the output could not be
written.)";

constexpr const char* RECORD_FOOTER = R"(
FILE is for its owner alone; it holds the names of all processes. It is ended by Ctrl-C, by SIGTERM or
after --seconds; what a crash leaves of it can be looked at, too: `tesubpf top --from FILE`,
`tesubpf watch --from FILE`, `tesubpf info FILE`, on any machine.

Exit status: 0 ended as asked; 1 never connected to a daemon, or it refused every subscription; 2 wrong
usage; 3 no /proc, or the file could not be written.)";

constexpr const char* INFO_FOOTER = R"(
Exit status: 0 printed, with a line on standard error where the recording is damaged or cut short;
2 no recording; 3 the output could not be written.)";

constexpr const char* EXPORT_FOOTER = R"(
TRACE is for Perfetto's viewer and trace processor, and fits to a system trace of the same boot. TIME is
as for `tesubpf top --at`.

Exit status: 0 written, with a line on standard error where the recording is damaged or cut short; 2 wrong
usage, or no recording; 3 the trace could not be written, or a signal ended it: it is removed then.)";

constexpr const char* METRICS_FOOTER = R"(
Needs no privileges, but knows a process's descriptors only where /proc shows them to its user or they
were reported since. Without a daemon, tesubpf_up is 0 and nothing is said of what lives. A name is
forgotten ten minutes after its last process. Needs a build with prometheus-cpp.

Exit status: 0 ended by a signal; 2 wrong usage; 3 cannot listen, no /proc, or the file could not be
written.)";

constexpr const char* TOP_FOOTER = R"(
Begins with what /proc shows and follows the daemon's events from there; without a daemon the figures
stand still until there is one. Press ? for the keys. Colours are left out when NO_COLOR is set.
A batch run is as wide as COLUMNS says, or 100 characters.

Exit status: 0 ended as asked; 1 a batch run that had no daemon to listen to; 2 wrong usage, or no
recording; 3 no terminal, no /proc, or the output could not be written.)";

// What the command line asks for.
struct Command {
    std::string socketName = SERVICE_SOCKET_NAME;
    std::vector<std::string> types = {"task-create", "task-exit", "records-lost"};
    WatchOptions watch;
    std::vector<std::string> recordedTypes;
    std::string path;
    bool withoutKernelTasks = false;
    bool withAllColumns = false;
    bool asJson = false;
    TopOptions top;
    RecorderOptions record;
    ExportOptions exported;
    MetricsOptions metrics;
    std::string sortName = OrderColumns().front()->order.name;
    // The subcommand. Returns the exit status.
    int (*run)(Command&, const TerminationSignals&) = nullptr;
};

void AddSocketOption(CLI::App* subcommand, Command& command) {
    subcommand
        ->add_option("--socket", command.socketName,
                     "Name of the daemon's socket in the abstract namespace")
        ->type_name("NAME")
        ->capture_default_str();
}

CLI::Option* AddFromOption(CLI::App* subcommand, std::string& path, const char* help) {
    return subcommand->add_option("--from", path, help)->type_name("FILE");
}

CLI::Option* AddTypeOption(CLI::App* subcommand, std::vector<std::string>& types,
                           const std::string& usual) {
    return subcommand
        ->add_option("-t,--type", types,
                     "Event types: names or numbers, several with commas or by repeating the "
                     "option; \"all\" for every type (default: " +
                         usual + ")")
        ->allow_extra_args(false)
        ->type_name("TYPE[,TYPE]");
}

CLI::Option* AddSecondsOption(CLI::App* subcommand, std::optional<double>& seconds) {
    return subcommand->add_option("-s,--seconds", seconds, "End after this many seconds")
        ->check(CLI::Range(0.001, 1e9).description(""))
        ->type_name("SECONDS");
}

bool MayColour() {
    return isatty(STDOUT_FILENO) == 1 && std::getenv("NO_COLOR") == nullptr;
}

int Watch(Command& command, const TerminationSignals& signals) {
    const auto types = ParseEventTypes(command.types);
    if (!types) {
        std::fprintf(stderr, "tesubpf: %s", types.error().c_str());
        return EXIT_USAGE;
    }
    command.watch.eventTypes = *types;
    command.watch.socketName = command.socketName;
    command.watch.header = isatty(STDOUT_FILENO) == 1;
    command.watch.colour = MayColour();
    return RunWatch(command.watch, signals);
}

void AddWatch(CLI::App& app, Command& command) {
    CLI::App* const watch = app.add_subcommand("watch", "Print events as they happen");
    AddTypeOption(watch, command.types, "task-create,task-exit,records-lost");
    CLI::Option* const from =
        AddFromOption(watch, command.watch.from, "Print what a recording has of these events");
    watch->add_flag("--json", command.watch.json, "One JSON object per line");
    AddSecondsOption(watch, command.watch.seconds)->excludes(from);
    watch->add_option("-n,--count", command.watch.count, "End after this many events")
        ->check(CLI::Validator(CLI::PositiveNumber).description(""))
        ->type_name("COUNT");
    AddSocketOption(watch, command);
    watch->footer("Event types (name, short form, number):\n" + DescribeEventTypes() +
                  WATCH_FOOTER);
    watch->callback([&command] { command.run = Watch; });
}

int RecordEvents(Command& command, const TerminationSignals& signals) {
    command.record.types = UsualTypes();
    if (!command.recordedTypes.empty()) {
        const auto types = ParseEventTypes(command.recordedTypes);
        if (!types) {
            std::fprintf(stderr, "tesubpf: %s", types.error().c_str());
            return EXIT_USAGE;
        }
        command.record.types = *types;
    }
    command.record.program = "tesubpf";
    command.record.socketName = command.socketName;
    return RunRecorder(command.record, signals);
}

void AddRecord(CLI::App& app, Command& command) {
    CLI::App* const record = app.add_subcommand(
        "record", "Record events and what /proc shows into a file, to be looked at anywhere");
    record->add_option("-o,--output", command.record.path, "A file that is not there yet")
        ->required()
        ->type_name("FILE");
    AddTypeOption(record, command.recordedTypes, "every record of the kernel's, and what was lost");
    AddSecondsOption(record, command.record.seconds);
    record
        ->add_option("--max-size", command.record.maxSize,
                     "Keep the newest: when FILE has half of this it becomes FILE.1. At least 1M")
        ->transform(CLI::AsSizeValue(false))
        ->check(CLI::Range(LEAST_MAX_SIZE, UINT64_MAX).description(""))
        ->type_name("BYTES");
    AddSocketOption(record, command);
    record->footer(RECORD_FOOTER);
    record->callback([&command] { command.run = RecordEvents; });
}

void AddInfo(CLI::App& app, Command& command) {
    CLI::App* const info = app.add_subcommand("info", "Say what a recording is of and what it has");
    info->add_option("FILE", command.path, "A recording")->required();
    info->footer(INFO_FOOTER);
    info->callback([&command] {
        command.run = [](Command& chosen, const TerminationSignals& /*signals*/) {
            return RunInfo(chosen.path);
        };
    });
}

void AddExport(CLI::App& app, Command& command) {
    ExportOptions& options = command.exported;
    CLI::App* const exported =
        app.add_subcommand("export", "Write what a recording has as a trace for Perfetto");
    exported->add_option("FILE", options.from, "A recording")->required();
    exported->add_option("-o,--output", options.output, "A file that is not there yet")
        ->required()
        ->type_name("TRACE");
    exported->add_option("--since", options.since, "From this moment on")->type_name("TIME");
    exported->add_option("--until", options.until, "Up to this moment")->type_name("TIME");
    exported->footer(EXPORT_FOOTER);
    exported->callback([&command] {
        command.run = [](Command& chosen, const TerminationSignals& signals) {
            return RunExport(chosen.exported, signals);
        };
    });
}

int Tasks(Command& command, const TerminationSignals& signals) {
    const DumpSignal all = command.withoutKernelTasks ? DUMP_SIGNAL_NO_KERNEL : DUMP_SIGNAL_TASKS;
    const DumpSignal usual =
        command.withoutKernelTasks ? DUMP_SIGNAL_NORMAL_NO_KERNEL : DUMP_SIGNAL_NORMAL;
    return RunDump(command.socketName, command.withAllColumns ? all : usual, signals);
}

void AddTasks(CLI::App& app, Command& command) {
    CLI::App* const tasks = app.add_subcommand("tasks", "Print the daemon's table of processes");
    tasks->add_flag("--no-kernel", command.withoutKernelTasks,
                    "Leave out kernel tasks: those without memory");
    tasks->add_flag("--all-columns", command.withAllColumns,
                    "Also the sizes and thread counts as last reported");
    AddSocketOption(tasks, command);
    tasks->footer(DUMP_FOOTER);
    tasks->callback([&command] { command.run = Tasks; });
}

void AddCounters(CLI::App& app, Command& command) {
    CLI::App* const counters = app.add_subcommand(
        "counters", "Print, as CSV, how many records of each type came in each second");
    AddSocketOption(counters, command);
    counters->footer(DUMP_FOOTER);
    counters->callback([&command] {
        command.run = [](Command& chosen, const TerminationSignals& signals) {
            return RunDump(chosen.socketName, DUMP_SIGNAL_STATE, signals);
        };
    });
}

void AddStatus(CLI::App& app, Command& command) {
    CLI::App* const status =
        app.add_subcommand("status", "Show how the daemon stands: losses, programs, clients");
    status->add_flag("--json", command.asJson, "As a JSON object");
    AddSocketOption(status, command);
    status->footer(STATUS_FOOTER);
    status->callback([&command] {
        command.run = [](Command& chosen, const TerminationSignals& signals) {
            return RunStatus(chosen.socketName, chosen.asJson, signals);
        };
    });
}

void AddMetrics(CLI::App& app, Command& command) {
    CLI::App* const metrics =
        app.add_subcommand("metrics", "Serve figures of this machine, for Prometheus");
    CLI::Option* const listen =
        metrics
            ->add_option("--listen", command.metrics.listen,
                         "Serve them by HTTP at /metrics, as in 127.0.0.1:9842")
            ->type_name("HOST:PORT");
    metrics
        ->add_option("--textfile", command.metrics.textFile,
                     "Write them every 15 seconds, as in /var/lib/prometheus/node-exporter/"
                     "tesubpf.prom; removed at the end")
        ->excludes(listen)
        ->type_name("FILE");
    metrics
        ->add_option("--name", command.metrics.globs,
                     "Only names that match count on their own, the others as \"other\"; may be "
                     "repeated (default: *)")
        ->allow_extra_args(false)
        ->type_name("GLOB");
    metrics
        ->add_option("--max-names", command.metrics.maxNames,
                     "How many names count on their own: the first that come")
        ->check(CLI::Range(1, 10'000).description(""))
        ->type_name("COUNT")
        ->capture_default_str();
    AddSocketOption(metrics, command);
    metrics->footer(METRICS_FOOTER);
    metrics->callback([&command] {
        command.run = [](Command& chosen, const TerminationSignals& signals) {
            chosen.metrics.socketName = chosen.socketName;
            return RunMetrics(chosen.metrics, signals);
        };
    });
}

int Top(Command& command, const TerminationSignals& signals) {
    const std::vector<const Column*> orders = OrderColumns();
    const auto chosen = std::find_if(orders.begin(), orders.end(), [&](const Column* column) {
        return command.sortName == column->order.name;
    });
    if (chosen == orders.end()) {
        return Fail(EXIT_USAGE,
                    "\"" + command.sortName + "\" is no order; it is one of " + ListOrders());
    }
    command.top.socketName = command.socketName;
    command.top.view.order = (*chosen)->order.compare;
    command.top.view.withKernelThreads = !command.withoutKernelTasks;
    command.top.colour = MayColour();
    return RunTop(command.top, signals);
}

void AddTop(CLI::App& app, Command& command) {
    CLI::App* const top =
        app.add_subcommand("top", "Show processes live, with their memory and what is odd");
    top->add_option("--sort", command.sortName,
                    ListOrders() + " (default: " + command.sortName + ")")
        ->type_name("ORDER");
    top->add_option("--filter", command.top.view.filter,
                    "Only names that contain TEXT, or pids that begin with it")
        ->type_name("TEXT");
    top->add_flag("--no-kernel", command.withoutKernelTasks, "Leave out kernel threads");
    top->add_flag("--batch", command.top.isBatch,
                  "Watch for a while (default: 2 seconds), print the table once and end");
    AddSecondsOption(top, command.top.seconds);
    CLI::Option* const from =
        AddFromOption(top, command.top.from, "Show a recording instead of this machine");
    top->add_option("--at", command.top.at,
                    std::string("From which moment of it on, with --batch the moment (default: its "
                                "beginning, with --batch its end): ") +
                        REPLAY_TIME_HELP)
        ->needs(from)
        ->type_name("TIME");
    AddSocketOption(top, command);
    top->footer(TOP_FOOTER);
    top->callback([&command] { command.run = Top; });
}

int Main(int argc, char** argv) {
    // A descriptor opened later must not become the standard output by taking its number.
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (fcntl(fd, F_GETFD) == -1 && open("/dev/null", O_RDWR | O_CLOEXEC) != fd) {
            return EXIT_FAILURE;
        }
    }
    ChooseCharacterSet();
    const TerminationSignals signals;
    std::signal(SIGPIPE, SIG_IGN);

    CLI::App app("Shows what the eBPF task service sees", "tesubpf");
    app.set_version_flag("--version", "tesubpf " TESUBPF_VERSION);
    app.require_subcommand(1);
    Command command;
    AddTop(app, command);
    AddWatch(app, command);
    AddRecord(app, command);
    AddInfo(app, command);
    AddExport(app, command);
    AddTasks(app, command);
    AddCounters(app, command);
    AddStatus(app, command);
    AddMetrics(app, command);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? EXIT_SUCCESS : EXIT_USAGE;
    }
    return command.run(command, signals);
}

}  // namespace

}  // namespace Tesu::Bpf

int main(int argc, char** argv) {
    return Tesu::Bpf::RunProgram("tesubpf", Tesu::Bpf::Main, argc, argv);
}
