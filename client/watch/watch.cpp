// SPDX-License-Identifier: Apache-2.0
#include "client/watch/watch.h"

#include <poll.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <utility>

#include "client/events/event_json.h"
#include "client/events/event_text.h"
#include "client/exit_status.h"
#include "client/replay/replay.h"
#include "client/text/output.h"
#include "client/text/terminal_text.h"
#include "libtesubpf/event_stream.h"
#include "recording/connection_news.h"
#include "records/read_prefix.h"
#include "util/monotonic_clock.h"

namespace Tesu::Bpf {

namespace {

// Ends the time that the caller wants as a signal from outside would.
bool EndAfter(double seconds) {
    sigevent onEnd{};
    onEnd.sigev_notify = SIGEV_SIGNAL;
    onEnd.sigev_signo = SIGTERM;
    timer_t timer{};
    const auto whole = static_cast<time_t>(seconds);
    const double rest = (seconds - static_cast<double>(whole)) * NANOSECONDS_PER_SECOND;
    const itimerspec end{.it_interval = {},
                         .it_value = {.tv_sec = whole, .tv_nsec = static_cast<long>(rest)}};
    return timer_create(CLOCK_MONOTONIC, &onEnd, &timer) == 0 &&
           timer_settime(timer, 0, &end, nullptr) == 0;
}

// What the stream handed out when this was recorded; kind 0: nothing. reason: holds the event's.
tesubpf_event ToEvent(const RecordingItem& item, std::string* reason) {
    tesubpf_event event{};
    event.received = item.time;
    if (const auto* const record = std::get_if<RecordedEvent>(&item.what)) {
        event.kind = TESUBPF_RECORD;
        event.type = ReadPrefix<uint32_t>(record->data, record->size);
        event.size = record->size;
        event.data = record->data;
    } else if (const auto* const news = std::get_if<RecordedNews>(&item.what)) {
        event.kind = news->state;
        event.type = news->eventType;
        *reason = EscapeForTerminal(news->reason);
    }
    event.reason = reason->c_str();
    return event;
}

class Watch {
  public:
    Watch(const WatchOptions& options, const TerminationSignals& signals)
        : options(options), signals(signals), formatter(options.colour) {}

    int run(tesubpf_stream* stream);
    int run(RecordingReader* recording);

  private:
    void begin();
    void takeEvents(tesubpf_stream* stream);
    void take(const tesubpf_event& item);
    void onRecord(const tesubpf_event& item);
    void onNews(const tesubpf_event& item);
    void flush();

    const WatchOptions& options;
    const TerminationSignals& signals;
    // Of the service that is listened to, or was.
    std::string socketName = options.socketName;
    TextFormatter formatter;
    std::string batch;  // not yet written
    uint64_t printed = 0;
    size_t refused = 0;
    bool isServed = false;
    bool isEnded = false;
    bool hasOutputFailed = false;
};

void Watch::begin() {
    if (options.header && !options.json) {
        batch = TextFormatter::HEADER;
        flush();
    }
}

int Watch::run(tesubpf_stream* stream) {
    begin();
    // Of the output only errors are reported, such as a pipe without a reader.
    pollfd entries[] = {{.fd = signals.fd(), .events = POLLIN, .revents = 0},
                        {.fd = STDOUT_FILENO, .events = 0, .revents = 0},
                        {.fd = tesubpf_fd(stream), .events = POLLIN, .revents = 0}};
    while (!isEnded) {
        if (poll(entries, 3, -1) > 0) {
            takeEvents(stream);
            isEnded = isEnded || (entries[0].revents | entries[1].revents) != 0;
        }
    }
    if (hasOutputFailed) {
        return EXIT_FAILED;
    }
    return isServed ? EXIT_OK : EXIT_NOT_SERVED;
}

int Watch::run(RecordingReader* recording) {
    constexpr size_t BATCH_SIZE = 64 << 10;
    const auto isIn = [](const std::vector<uint32_t>& types, uint32_t type) {
        return std::ranges::find(types, type) != types.end();
    };
    begin();
    // A file may hold anything.
    socketName = EscapeForTerminal(FieldText(recording->header().block.socketName));
    bool isBegun = false;
    while (const RecordingItem* const item = isEnded ? nullptr : recording->next()) {
        std::string reason;
        const tesubpf_event event = ToEvent(*item, &reason);
        const bool isOfType = event.kind == TESUBPF_RECORD || event.kind == TESUBPF_REFUSED;
        // A type that was not subscribed to can have come to anybody.
        if (event.kind == 0 || (isOfType && !isIn(options.eventTypes, event.type) &&
                                isIn(recording->header().types, event.type))) {
            continue;
        }
        // That there was a service to begin with is no news.
        if (std::exchange(isBegun, true) || event.kind != TESUBPF_CONNECTED) {
            take(event);
        }
        if (batch.size() >= BATCH_SIZE) {
            flush();
            isEnded = isEnded || signals.wait(std::chrono::milliseconds(0));
        }
    }
    flush();
    if (hasOutputFailed) {
        return EXIT_FAILED;
    }
    ReportDamage(options.from, recording->damage());
    return EXIT_OK;
}

// What is there now.
void Watch::takeEvents(tesubpf_stream* stream) {
    tesubpf_event item;
    while (!isEnded && tesubpf_next(stream, &item) > 0) {
        take(item);
    }
    flush();
}

// Events are written before news of the connection, to which they may lead up, are said.
void Watch::take(const tesubpf_event& item) {
    if (item.kind == TESUBPF_RECORD) {
        onRecord(item);
    } else {
        flush();
        onNews(item);
    }
}

void Watch::onRecord(const tesubpf_event& item) {
    const Event event = DecodeEvent(item.data, item.size);
    if (options.json) {
        batch += FormatEventJson(event, item.received) + "\n";
    } else {
        formatter.append(event, item.received, &batch);
    }
    isEnded = ++printed == options.count;
}

void Watch::onNews(const tesubpf_event& item) {
    if (item.kind == TESUBPF_CONNECTED) {
        isServed = true;
        refused = 0;
    } else if (item.kind == TESUBPF_REFUSED) {
        isServed = ++refused < options.eventTypes.size();
    } else if (item.kind == TESUBPF_LOST) {
        formatter.forgetProcesses();
    }
    if (const std::string news = DescribeNews(item, socketName); !news.empty()) {
        std::fprintf(stderr, "tesubpf: %s\n", news.c_str());
    }
}

void Watch::flush() {
    const WriteResult result = WriteUntilStopped(STDOUT_FILENO, batch, signals.fd());
    batch.clear();
    if (result == WriteResult::FAILED) {
        std::fprintf(stderr, "tesubpf: cannot write: %s\n", strerror(errno));
        hasOutputFailed = true;
    }
    isEnded = isEnded || result != WriteResult::WRITTEN;
}

}  // namespace

int RunWatch(const WatchOptions& options, const TerminationSignals& signals) {
    if (!options.from.empty()) {
        Result<RecordingReader> recording = RecordingReader::open(options.from);
        return recording ? Watch(options, signals).run(&*recording)
                         : Fail(EXIT_USAGE, recording.error());
    }
    const Result<EventStream> stream = OpenEventStream(options.socketName, options.eventTypes);
    if (!stream || (options.seconds && !EndAfter(*options.seconds))) {
        return Fail(EXIT_FAILED, stream ? "cannot set a timer" : stream.error());
    }
    return Watch(options, signals).run(stream->get());
}

}  // namespace Tesu::Bpf
