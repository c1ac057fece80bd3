// SPDX-License-Identifier: Apache-2.0
#include "client/watch/watch.h"

#include <poll.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <utility>

#include "client/events/event_json.h"
#include "client/events/event_stream.h"
#include "client/events/event_text.h"
#include "client/exit_status.h"
#include "client/text/output.h"
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

class Watch {
  public:
    Watch(const WatchOptions& options, const TerminationSignals& signals, EventStream stream)
        : options(options),
          signals(signals),
          stream(std::move(stream)),
          formatter(options.colour) {}

    int run();

  private:
    void takeEvents();
    void onRecord(const tesubpf_event& item);
    void onNews(const tesubpf_event& item);
    void flush();

    const WatchOptions& options;
    const TerminationSignals& signals;
    EventStream stream;
    TextFormatter formatter;
    std::string batch;  // not yet written
    uint64_t printed = 0;
    size_t refused = 0;
    bool isServed = false;
    bool isEnded = false;
    bool hasOutputFailed = false;
};

int Watch::run() {
    if (options.header && !options.json) {
        batch = TextFormatter::HEADER;
        flush();
    }
    // Of the output only errors are reported, such as a pipe without a reader.
    pollfd entries[] = {{.fd = signals.fd(), .events = POLLIN, .revents = 0},
                        {.fd = STDOUT_FILENO, .events = 0, .revents = 0},
                        {.fd = tesubpf_fd(stream.get()), .events = POLLIN, .revents = 0}};
    while (!isEnded) {
        if (poll(entries, 3, -1) > 0) {
            takeEvents();
            isEnded = isEnded || (entries[0].revents | entries[1].revents) != 0;
        }
    }
    if (hasOutputFailed) {
        return EXIT_FAILED;
    }
    return isServed ? EXIT_OK : EXIT_NOT_SERVED;
}

// What is there now; written before news of the connection, to which it may lead up, are said.
void Watch::takeEvents() {
    tesubpf_event item;
    while (!isEnded && tesubpf_next(stream.get(), &item) > 0) {
        if (item.kind == TESUBPF_RECORD) {
            onRecord(item);
        } else {
            flush();
            onNews(item);
        }
    }
    flush();
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
    const char* const name = options.socketName.c_str();
    switch (item.kind) {
        case TESUBPF_CONNECTED:
            isServed = true;
            refused = 0;
            std::fprintf(stderr, "tesubpf: connected to @%s\n", name);
            break;
        case TESUBPF_WAITING:
            std::fprintf(stderr,
                         "tesubpf: no daemon is listening on @%s; trying again every 5 seconds\n",
                         name);
            break;
        case TESUBPF_REFUSED:
            std::fprintf(stderr, "tesubpf: the daemon refused the subscription to event type %u\n",
                         item.type);
            isServed = ++refused < options.eventTypes.size();
            break;
        case TESUBPF_MALFORMED:
            std::fprintf(stderr, "tesubpf: the other side does not speak the protocol: %s\n",
                         item.reason);
            break;
        case TESUBPF_LOST:
            formatter.forgetProcesses();
            std::fprintf(stderr, "tesubpf: the connection was lost%s%s\n",
                         *item.reason == '\0' ? "" : ": ", item.reason);
            break;
        default:
            break;
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
    Result<EventStream> stream = OpenEventStream(options.socketName, options.eventTypes);
    if (!stream || (options.seconds && !EndAfter(*options.seconds))) {
        return Fail(EXIT_FAILED, stream ? "cannot set a timer" : stream.error());
    }
    return Watch(options, signals, std::move(*stream)).run();
}

}  // namespace Tesu::Bpf
