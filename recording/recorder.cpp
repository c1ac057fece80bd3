// SPDX-License-Identifier: Apache-2.0
#include "recording/recorder.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <memory>
#include <utility>

#include "libtesubpf/event_stream.h"
#include "model/process_model.h"
#include "proc/process_snapshot.h"
#include "recording/connection_news.h"
#include "recording/writer.h"
#include "records/event_table.h"
#include "util/monotonic_clock.h"

namespace Tesu::Bpf {

namespace {

// Between two looks whether something is due, while there are events and without them.
constexpr int64_t LOOK_TIME = 250'000'000;
constexpr int64_t IDLE_LOOK_TIME = NANOSECONDS_PER_SECOND;
// Processes that are read again at a look at most.
constexpr size_t REFRESHES_PER_LOOK = 64;
// What a crash of the recorder may cost.
constexpr int64_t FLUSH_TIME = NANOSECONDS_PER_SECOND;
constexpr int64_t CLOCKS_TIME = 60 * NANOSECONDS_PER_SECOND;
// Whoever looks at a late part of a long recording begins at a snapshot.
constexpr int64_t SNAPSHOT_TIME = 300 * NANOSECONDS_PER_SECOND;

constexpr const char* VERSION = " " TESUBPF_VERSION;

static_assert(TESUBPF_CONNECTED == int{STATE_CONNECTED} && TESUBPF_LOST == int{STATE_LOST} &&
              TESUBPF_REFUSED == int{STATE_REFUSED});

// How it went.
struct RecorderTotals {
    uint64_t events = 0;
    uint64_t bytes = 0;  // of what the files have now
    bool wasServed = false;
};

// One thread: its loop takes events as they come, and looks now and then what else is due.
class Recorder {
  public:
    Recorder(const RecorderOptions& options, EventStream stream, RecordingWriter writer)
        : options(options),
          stream(std::move(stream)),
          writer(std::move(writer)),
          reader(options.procRoot) {}

    Result<RecorderTotals> run(const TerminationSignals& signals);

  private:
    void waitForLook(const TerminationSignals& signals);
    void takeEvents();
    void take(const tesubpf_event& event);
    void look();
    void readProc();
    void refresh(int64_t now);
    void changeHalves();

    const RecorderOptions& options;
    EventStream stream;
    RecordingWriter writer;
    ProcReader reader;
    // Of what is recorded: says which processes are to be read again.
    ProcessModel model;
    RecorderTotals totals;
    uint64_t otherHalf = 0;  // bytes
    size_t refused = 0;      // subscriptions of this connection
    // The last state of the connection, with which another half begins; 0: none yet.
    uint32_t state = 0;

    bool hasEnded = false;
    std::string failure;  // why; empty: as asked
    bool isProcDue = true;
    int64_t end = INT64_MAX;
    int64_t lookDue = 0;
    int64_t lastLook = 0;
    int64_t flushDue = 0;
    int64_t clocksDue = 0;
    int64_t snapshotDue = 0;
};

Result<RecorderTotals> Recorder::run(const TerminationSignals& signals) {
    lastLook = MonotonicNanoseconds();
    lookDue = lastLook + LOOK_TIME;
    clocksDue = lastLook + CLOCKS_TIME;
    if (options.seconds) {
        end = lastLook + static_cast<int64_t>(*options.seconds * NANOSECONDS_PER_SECOND);
    }
    while (!hasEnded) {
        waitForLook(signals);
        look();
        failure = failure.empty() ? writer.failure() : failure;
        hasEnded = hasEnded || !failure.empty();
    }
    writer.end(END_ASKED);
    failure = failure.empty() ? writer.failure() : failure;
    totals.bytes = otherHalf + writer.size();
    return failure.empty() ? Result<RecorderTotals>(totals) : Failure(failure);
}

// Takes what comes until something may be due, or until it is to end.
void Recorder::waitForLook(const TerminationSignals& signals) {
    pollfd entries[] = {{.fd = signals.fd(), .events = POLLIN, .revents = 0},
                        {.fd = tesubpf_fd(stream.get()), .events = POLLIN, .revents = 0}};
    while (true) {
        const int64_t now = MonotonicNanoseconds();
        const int64_t due = std::min(lookDue, end);
        if (now >= due) {
            hasEnded = now >= end;
            return;
        }
        // Rounded up.
        if (poll(entries, std::size(entries),
                 static_cast<int>((due - now + 999'999) / 1'000'000)) <= 0) {
            continue;
        }
        if (entries[1].revents != 0) {
            takeEvents();
        }
        if (entries[0].revents != 0) {
            hasEnded = true;
            return;
        }
    }
}

void Recorder::takeEvents() {
    tesubpf_event event{};
    while (tesubpf_next(stream.get(), &event) == 1) {
        take(event);
    }
    lookDue = std::min(lookDue, lastLook + LOOK_TIME);
    if (options.maxSize != 0 && failure.empty() && writer.failure().empty() &&
        writer.size() >= options.maxSize / 2) {
        changeHalves();
    }
}

void Recorder::take(const tesubpf_event& event) {
    if (event.kind == TESUBPF_RECORD) {
        ++totals.events;
        model.apply(DecodeEvent(event.data, event.size));
        writer.addEvent(event.received, event.data, event.size);
        return;
    }
    if (event.kind < STATE_CONNECTED || event.kind > STATE_LOST) {
        return;
    }
    state = event.kind;
    if (event.kind == TESUBPF_SUBSCRIBED) {
        isProcDue = true;
        lookDue = 0;
    } else if (event.kind == TESUBPF_CONNECTED) {
        refused = 0;
        totals.wasServed = true;
    } else if (event.kind == TESUBPF_REFUSED && ++refused == options.types.size()) {
        totals.wasServed = false;
    }
    if (const std::string news = DescribeNews(event, options.socketName); !news.empty()) {
        std::fprintf(stderr, "%s: %s\n", options.program.c_str(), news.c_str());
    }
    writer.addNews(event.received, RecordedState(event.kind), event.type, event.reason);
}

void Recorder::look() {
    const int64_t now = lastLook = MonotonicNanoseconds();
    lookDue = now + IDLE_LOOK_TIME;
    if (isProcDue || model.wantsProc(now) || now >= snapshotDue) {
        readProc();
    } else {
        refresh(now);
    }
    if (now >= clocksDue) {
        clocksDue = now + CLOCKS_TIME;
        writer.addClocks();
    }
    if (now >= flushDue) {
        flushDue = now + FLUSH_TIME;
        writer.flush();
    }
}

void Recorder::readProc() {
    const int64_t begin = MonotonicNanoseconds();
    std::vector<ProcessSnapshot> processes;
    if (!reader.readAll(&processes)) {
        failure = "cannot read " + options.procRoot + ": " + strerror(errno);
        return;
    }
    isProcDue = false;
    snapshotDue = begin + SNAPSHOT_TIME;
    model.mergeProc(begin, processes);
    writer.addProcesses(BLOCK_SNAPSHOT, begin, processes);
}

void Recorder::refresh(int64_t now) {
    std::vector<ProcessSnapshot> processes;
    std::vector<int32_t> gone;
    for (const int32_t pid : model.takeRefreshes(now, REFRESHES_PER_LOOK)) {
        const std::optional<ProcessSnapshot> process = reader.read(pid);
        model.refresh(pid, process);
        if (process) {
            processes.push_back(*process);
        } else {
            gone.push_back(pid);
        }
    }
    if (!processes.empty() || !gone.empty()) {
        writer.addProcesses(BLOCK_PROCESS, now, processes, gone);
    }
}

void Recorder::changeHalves() {
    writer.end(END_CONTINUED);
    if (!writer.failure().empty()) {
        return;
    }
    otherHalf = writer.size();
    if (rename(options.path.c_str(), (options.path + ".1").c_str()) == -1) {
        failure = "cannot rename " + options.path + ": " + strerror(errno);
        return;
    }
    Result<RecordingWriter> next = RecordingWriter::create(
        options.path, DescribeMachine(options.program + VERSION, options.socketName),
        options.types);
    if (!next) {
        failure = next.error();
        return;
    }
    writer = std::move(*next);
    if (state != 0) {
        writer.addNews(MonotonicNanoseconds(), RecordedState(state), 0, "");
    }
    readProc();
    if (writer.size() >= options.maxSize / 2) {
        failure = "the processes of this machine alone take " + std::to_string(writer.size()) +
                  " bytes: a greater size is needed";
    }
}

Result<RecorderTotals> Record(const RecorderOptions& options, const TerminationSignals& signals) {
    if (options.maxSize != 0 && access((options.path + ".1").c_str(), F_OK) == 0) {
        return Failure(options.path + ".1 is there already");
    }
    RecorderOptions chosen = options;
    // What is missing must be known of every recording.
    if (std::ranges::find(chosen.types, NOTIFICATION_RECORDS_LOST) == chosen.types.end()) {
        chosen.types.push_back(NOTIFICATION_RECORDS_LOST);
    }
    Result<EventStream> stream = OpenEventStream(chosen.socketName, chosen.types);
    if (!stream) {
        return Failure(stream.error());
    }
    Result<RecordingWriter> writer = RecordingWriter::create(
        chosen.path, DescribeMachine(chosen.program + VERSION, chosen.socketName), chosen.types);
    if (!writer) {
        return Failure(writer.error());
    }
    return Recorder(chosen, std::move(*stream), std::move(*writer)).run(signals);
}

}  // namespace

std::vector<uint32_t> UsualTypes() {
    std::vector<uint32_t> types;
    for (const EventType& row : EVENT_TYPES) {
        if (row.type < RAW_EVENT_TYPE_COUNT || row.type == NOTIFICATION_RECORDS_LOST) {
            types.push_back(row.type);
        }
    }
    return types;
}

int RunRecorder(const RecorderOptions& options, const TerminationSignals& signals) {
    const char* const name = options.program.c_str();
    // A limit on the file's size is an error of the write like any other.
    std::signal(SIGXFSZ, SIG_IGN);
    const Result<RecorderTotals> totals = Record(options, signals);
    if (!totals) {
        std::fprintf(stderr, "%s: %s\n", name, totals.error().c_str());
        return 3;
    }
    std::fprintf(stderr, "%s: %llu events, %llu bytes in %s\n", name,
                 static_cast<unsigned long long>(totals->events),
                 static_cast<unsigned long long>(totals->bytes), options.path.c_str());
    return totals->wasServed ? 0 : 1;
}

}  // namespace Tesu::Bpf
