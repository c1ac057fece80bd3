// SPDX-License-Identifier: Apache-2.0
#include "client/top/top.h"

#include <poll.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <utility>
#include <vector>

#include "client/events/event_stream.h"
#include "client/exit_status.h"
#include "client/top/controls.h"
#include "client/top/frame.h"
#include "client/top/screen.h"
#include "proc/process_snapshot.h"
#include "records/event_table.h"
#include "records/raw_event.h"
#include "util/monotonic_clock.h"
#include "util/string_util.h"

namespace Tesu::Bpf {

namespace {

// Between two frames while there is news; a key is answered at once.
constexpr int64_t FRAME_TIME = 250'000'000;
// Without news: the ages, rates and histories go on.
constexpr int64_t IDLE_FRAME_TIME = NANOSECONDS_PER_SECOND;
// Processes that are refreshed for a frame at most.
constexpr size_t REFRESHES_PER_FRAME = 64;
constexpr double BATCH_SECONDS = 2;
constexpr size_t BATCH_WIDTH = 100;

std::string TimeOfDay() {
    const time_t now = time(nullptr);
    tm local{};
    localtime_r(&now, &local);
    return StringPrintf("%02d:%02d:%02d", local.tm_hour, local.tm_min, local.tm_sec);
}

int ToPollTimeout(int64_t nanoseconds) {
    // Rounded up, and at most a minute.
    return static_cast<int>(std::clamp<int64_t>((nanoseconds + 999'999) / 1'000'000, 0, 60'000));
}

// One thread: its loop takes events and keys as they come, and makes a frame when one is due.
class Top {
  public:
    // screen: null in a batch run.
    Top(const TopOptions& options, EventStream stream, std::unique_ptr<TopScreen> screen)
        : options(options),
          stream(std::move(stream)),
          reader(options.procRoot),
          screen(std::move(screen)) {
        state.request = options.view;
        if (options.seconds || options.isBatch) {
            end = MonotonicNanoseconds() +
                  static_cast<int64_t>(options.seconds.value_or(BATCH_SECONDS) *
                                       NANOSECONDS_PER_SECOND);
        }
    }

    // Returns an ExitStatus.
    int run(const TerminationSignals& signals);

  private:
    bool waitForFrame(const TerminationSignals& signals);
    void takeEvents();
    bool takeKeys();
    bool refresh();
    void draw();
    int print();

    const TopOptions& options;
    EventStream stream;
    ProcReader reader;
    ProcessModel model;
    bool isProcDue = true;  // until there is a service, and without one, /proc is all there is

    std::unique_ptr<TopScreen> screen;
    FrameState state;
    ProcessView view;
    bool isViewDue = true;  // a view that stands still is renewed for this only
    int64_t frameDue = 0;
    int64_t lastFrame = 0;
    int64_t end = INT64_MAX;
};

int Top::run(const TerminationSignals& signals) {
    do {
        if (!refresh()) {
            const std::string reason = "cannot read " + options.procRoot + ": " + strerror(errno);
            screen.reset();
            return Fail(EXIT_FAILED, reason);
        }
        if (screen != nullptr) {
            draw();
        }
        lastFrame = MonotonicNanoseconds();
        frameDue = lastFrame + IDLE_FRAME_TIME;
    } while (waitForFrame(signals));
    return options.isBatch ? print() : EXIT_OK;
}

// Handles whatever comes until the next frame is due; false at the end.
bool Top::waitForFrame(const TerminationSignals& signals) {
    const bool hasScreen = screen != nullptr;
    // poll() leaves out what is no descriptor.
    pollfd entries[] = {
        {.fd = signals.fd(), .events = POLLIN, .revents = 0},
        {.fd = tesubpf_fd(stream.get()), .events = POLLIN, .revents = 0},
        {.fd = hasScreen ? STDIN_FILENO : -1, .events = POLLIN, .revents = 0},
        {.fd = hasScreen ? screen->signalFd() : -1, .events = POLLIN, .revents = 0}};
    auto& [termination, service, keys, terminalSignals] = entries;
    while (true) {
        const int64_t now = MonotonicNanoseconds();
        if (now >= end) {
            return false;
        }
        if (now >= frameDue) {
            return true;
        }
        if (poll(entries, std::size(entries), ToPollTimeout(std::min(frameDue, end) - now)) <= 0) {
            continue;
        }
        if (termination.revents != 0 || (keys.revents & (POLLHUP | POLLERR | POLLNVAL)) != 0) {
            return false;
        }
        if (service.revents != 0) {
            takeEvents();
        }
        if (terminalSignals.revents != 0) {
            isViewDue = true;
            frameDue = 0;
        }
        if ((keys.revents != 0 && !takeKeys()) ||
            (terminalSignals.revents != 0 && !screen->handleSignals())) {
            return false;
        }
    }
}

// What the connection has, up to one buffer of it, so that a flood of events holds up no key.
void Top::takeEvents() {
    tesubpf_event item;
    while (tesubpf_next(stream.get(), &item) > 0) {
        switch (item.kind) {
            case TESUBPF_RECORD:
                model.apply(DecodeEvent(item.data, item.size));
                break;
            case TESUBPF_SUBSCRIBED:
                isProcDue = true;
                break;
            case TESUBPF_MALFORMED:
                break;  // LOST follows
            default:
                // What was lost is still said to be lost while nobody answers.
                if (item.kind != TESUBPF_WAITING || state.connection != TESUBPF_LOST) {
                    state.connection = item.kind;
                    state.lostReason = item.reason;
                }
        }
        frameDue = std::min(frameDue, lastFrame + FRAME_TIME);
    }
}

// False when it is to end.
bool Top::takeKeys() {
    while (const std::optional<int> key = screen->readKey()) {
        const ViewRequest before = state.request;
        const Command command = OnKey(*key, view.rows.size(), view.matching, &state);
        if (command == Command::QUIT) {
            return false;
        }
        isProcDue = isProcDue || command == Command::READ_PROC;
        isViewDue = isViewDue || command == Command::READ_PROC || state.request != before;
        frameDue = 0;
    }
    return true;
}

// Reads of /proc what is due: all of it after a connection was made, or single processes. False
// when /proc cannot be read; errno says why.
bool Top::refresh() {
    const int64_t now = MonotonicNanoseconds();
    model.advanceTo(now);
    if (!isProcDue && !model.wantsProc(now)) {
        for (const int32_t pid : model.takeRefreshes(now, REFRESHES_PER_FRAME)) {
            model.refresh(pid, reader.read(pid));
        }
        return true;
    }
    std::vector<ProcessSnapshot> processes;
    if (!reader.readAll(&processes)) {
        return false;
    }
    model.mergeProc(now, processes);
    isProcDue = false;
    return true;
}

void Top::draw() {
    state.clock = TimeOfDay();
    const size_t height = screen->height();
    if (!state.isPaused || isViewDue) {
        isViewDue = false;
        state.request.rowLimit = height - std::min(FrameChrome(height), height);
        view = model.view(state.request);
        state.request.firstRow = view.firstRow;
    }
    screen->draw(MakeFrame(view, state, screen->width(), height));
}

int Top::print() {
    state.clock = TimeOfDay();
    const char* const columns = std::getenv("COLUMNS");
    const int width = columns != nullptr ? std::atoi(columns) : 0;
    const std::string text =
        MakePlainText(model.view(state.request), state,
                      width > 0 && width <= 1000 ? static_cast<size_t>(width) : BATCH_WIDTH);
    if (std::fputs(text.c_str(), stdout) < 0 || std::fflush(stdout) != 0) {
        return Fail(EXIT_FAILED, std::string("cannot write: ") + strerror(errno));
    }
    return state.connection == TESUBPF_CONNECTED ? EXIT_OK : EXIT_NOT_SERVED;
}

}  // namespace

int RunTop(const TopOptions& options, const TerminationSignals& signals) {
    Result<EventStream> stream = OpenEventStream(
        options.socketName, {RAW_EVENT_TASK_INIT, RAW_EVENT_RSS_STAT, RAW_EVENT_TASK_CREATE,
                             RAW_EVENT_TASK_EXIT, RAW_EVENT_FD_UPDATE, NOTIFICATION_RECORDS_LOST});
    if (!stream) {
        return Fail(EXIT_FAILED, stream.error());
    }
    std::unique_ptr<TopScreen> screen;
    if (!options.isBatch) {
        Result<std::unique_ptr<TopScreen>> opened = TopScreen::open(options.colour);
        if (!opened) {
            return Fail(EXIT_FAILED, opened.error());
        }
        screen = std::move(*opened);
    }
    return Top(options, std::move(*stream), std::move(screen)).run(signals);
}

}  // namespace Tesu::Bpf
