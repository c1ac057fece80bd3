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

#include "client/connection/service_connection.h"
#include "client/events/event_json.h"
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
    Watch(const WatchOptions& options, const TerminationSignals& signals,
          ServiceConnection connection)
        : options(options),
          signals(signals),
          connection(std::move(connection)),
          formatter(options.colour) {}

    int run();

  private:
    void takeItems();
    void onEvent(const ConnectionItem& item);
    void onNews(const ConnectionItem& item);
    void flush();

    const WatchOptions& options;
    const TerminationSignals& signals;
    ServiceConnection connection;
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
                        {.fd = connection.descriptor(), .events = POLLIN, .revents = 0}};
    while (!isEnded) {
        if (poll(entries, 3, -1) > 0) {
            takeItems();
            isEnded = isEnded || (entries[0].revents | entries[1].revents) != 0;
        }
    }
    if (hasOutputFailed) {
        return EXIT_FAILED;
    }
    return isServed ? EXIT_OK : EXIT_NOT_SERVED;
}

// What is there now; written before news of the connection, to which it may lead up, are said.
void Watch::takeItems() {
    ConnectionItem::Kind kind = ConnectionItem::EVENT;
    while (!isEnded && kind != ConnectionItem::NOTHING) {
        const ConnectionItem item = connection.next();
        kind = item.kind;
        if (kind == ConnectionItem::EVENT) {
            onEvent(item);
        } else {
            flush();
            onNews(item);
        }
    }
}

void Watch::onEvent(const ConnectionItem& item) {
    const Event event = DecodeEvent(item.data, item.size);
    const int64_t receivedTime = MonotonicNanoseconds();
    if (options.json) {
        batch += FormatEventJson(event, receivedTime) + "\n";
    } else {
        formatter.append(event, receivedTime, &batch);
    }
    if (++printed == options.count) {
        isEnded = true;
        flush();
    }
}

void Watch::onNews(const ConnectionItem& item) {
    const char* const name = options.socketName.c_str();
    switch (item.kind) {
        case ConnectionItem::CONNECTED:
            isServed = true;
            refused = 0;
            std::fprintf(stderr, "tesubpf: connected to @%s\n", name);
            break;
        case ConnectionItem::WAITING:
            std::fprintf(stderr,
                         "tesubpf: no daemon is listening on @%s; trying again every 5 seconds\n",
                         name);
            break;
        case ConnectionItem::REFUSED:
            std::fprintf(stderr, "tesubpf: the daemon refused the subscription to event type %d\n",
                         item.eventType);
            isServed = ++refused < options.eventTypes.size();
            break;
        case ConnectionItem::MALFORMED:
            std::fprintf(stderr, "tesubpf: the other side does not speak the protocol: %s\n",
                         item.reason.c_str());
            break;
        case ConnectionItem::LOST:
            formatter.forgetProcesses();
            std::fprintf(stderr, "tesubpf: the connection was lost%s%s\n",
                         item.reason.empty() ? "" : ": ", item.reason.c_str());
            break;
        case ConnectionItem::NOTHING:
        case ConnectionItem::SUBSCRIBED:
        case ConnectionItem::EVENT:
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
    Result<ServiceConnection> connection =
        ServiceConnection::open(options.socketName, options.eventTypes);
    if (!connection || (options.seconds && !EndAfter(*options.seconds))) {
        return Fail(EXIT_FAILED, connection ? "cannot set a timer" : connection.error());
    }
    return Watch(options, signals, std::move(*connection)).run();
}

}  // namespace Tesu::Bpf
