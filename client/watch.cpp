// SPDX-License-Identifier: Apache-2.0
#include "client/watch.h"

#include <android-base/unique_fd.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>

#include "client/batch_writer.h"
#include "client/event_decoder.h"
#include "client/event_json.h"
#include "client/event_stream.h"
#include "client/event_text.h"

namespace Tesu::Bpf {

namespace {

int64_t MonotonicNanoseconds() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

// Two threads: the stream's, which runs every on... member, and the caller's, which waits in run().
class Watch {
  public:
    explicit Watch(const WatchOptions& options)
        : options(options),
          endFd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
          formatter(options.colour),
          writer(STDOUT_FILENO, endFd.get()) {}

    int run(const TerminationSignals& signals);

  private:
    EventStreamListener makeListener();
    void onEvent(const char* data, uint32_t size);
    void onBatchEnd();
    void onConnected();
    void onLost();
    void onRefused(int eventType);
    void waitForEnd(const TerminationSignals& signals) const;
    void end() { eventfd_write(endFd.get(), 1); }

    const WatchOptions& options;
    // Readable from the moment the watch is to end, whoever found that out; never read.
    const android::base::unique_fd endFd;

    // The stream's thread.
    TextFormatter formatter;
    BatchWriter writer;
    uint64_t printed = 0;
    size_t refused = 0;
    bool outputEnded = false;

    // Written by the stream's thread, read when it has ended.
    bool served = false;
    bool outputFailed = false;
};

int Watch::run(const TerminationSignals& signals) {
    if (endFd.get() == -1) {
        std::perror("tesubpf: cannot create an event descriptor");
        return WATCH_OUTPUT_FAILED;
    }
    if (options.header && !options.json) {
        writer.batch() = TextFormatter::header();
        onBatchEnd();
    }
    {
        EventStream stream(options.socketName, options.eventTypes, makeListener());
        stream.start();
        waitForEnd(signals);
        end();
    }
    if (outputFailed) {
        return WATCH_OUTPUT_FAILED;
    }
    return served ? WATCH_OK : WATCH_NOT_SERVED;
}

// Returns when the time is up, a signal has come, the stream's thread has said so, or the reader of
// standard output has gone.
void Watch::waitForEnd(const TerminationSignals& signals) const {
    using Clock = std::chrono::steady_clock;
    const Clock::time_point start = Clock::now();
    // Without events: reported are only errors, such as a pipe without a reader.
    pollfd entries[] = {{.fd = endFd.get(), .events = POLLIN, .revents = 0},
                        {.fd = signals.fd(), .events = POLLIN, .revents = 0},
                        {.fd = STDOUT_FILENO, .events = 0, .revents = 0}};
    while (true) {
        int timeoutMs = -1;
        if (options.seconds) {
            const std::chrono::duration<double> left =
                std::chrono::duration<double>(*options.seconds) - (Clock::now() - start);
            if (left.count() <= 0) {
                return;
            }
            // Rounded up, and in pieces of a minute: a poll takes no more than 24 days.
            timeoutMs = static_cast<int>(std::min(left.count(), 60.0) * 1000) + 1;
        }
        if (poll(entries, 3, timeoutMs) > 0) {
            return;
        }
    }
}

EventStreamListener Watch::makeListener() {
    EventStreamListener listener;
    listener.event = [this](const char* data, uint32_t size) { onEvent(data, size); };
    listener.batchEnd = [this] { onBatchEnd(); };
    listener.connected = [this] { onConnected(); };
    listener.lost = [this] { onLost(); };
    listener.waiting = [this] {
        std::fprintf(stderr,
                     "tesubpf: no daemon is listening on @%s; trying again every 5 seconds\n",
                     options.socketName.c_str());
    };
    listener.refused = [this](int eventType) { onRefused(eventType); };
    listener.malformed = [](const std::string& reason) {
        std::fprintf(stderr, "tesubpf: the other side does not speak the protocol: %s\n",
                     reason.c_str());
    };
    return listener;
}

void Watch::onEvent(const char* data, uint32_t size) {
    if (outputEnded || (options.count && printed >= *options.count)) {
        return;
    }
    const Event event = DecodeEvent(data, size);
    const int64_t receivedTime = MonotonicNanoseconds();
    if (options.json) {
        writer.batch() += FormatEventJson(event, receivedTime) + "\n";
    } else {
        formatter.append(event, receivedTime, &writer.batch());
    }
    ++printed;
}

void Watch::onBatchEnd() {
    if (outputEnded) {
        return;
    }
    const BatchWriter::Result result = writer.flush();
    if (result == BatchWriter::Result::FAILED) {
        std::fprintf(stderr, "tesubpf: cannot write: %s\n", strerror(errno));
        outputFailed = true;
    }
    outputEnded = result != BatchWriter::Result::WRITTEN;
    if (outputEnded || (options.count && printed >= *options.count)) {
        end();
    }
}

void Watch::onConnected() {
    served = true;
    refused = 0;
    std::fprintf(stderr, "tesubpf: connected to @%s\n", options.socketName.c_str());
}

void Watch::onLost() {
    formatter.forgetProcesses();
    std::fprintf(stderr, "tesubpf: the connection was lost\n");
}

void Watch::onRefused(int eventType) {
    std::fprintf(stderr, "tesubpf: the daemon refused the subscription to event type %d\n",
                 eventType);
    ++refused;
    served = refused < options.eventTypes.size();
}

}  // namespace

int RunWatch(const WatchOptions& options, const TerminationSignals& signals) {
    return Watch(options).run(signals);
}

}  // namespace Tesu::Bpf
