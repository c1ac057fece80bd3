// SPDX-License-Identifier: Apache-2.0
#include "client/top/top.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <utility>
#include <vector>

#include "client/exit_status.h"
#include "client/top/controls.h"
#include "client/top/frame.h"
#include "client/top/screen.h"
#include "client/top/source.h"
#include "util/monotonic_clock.h"
#include "util/string_util.h"

namespace Tesu::Bpf {

namespace {

// Between two frames while there is news; a key is answered at once.
constexpr int64_t FRAME_TIME = 250'000'000;
// Without news: the ages, rates and histories go on.
constexpr int64_t IDLE_FRAME_TIME = NANOSECONDS_PER_SECOND;
constexpr double BATCH_SECONDS = 2;
constexpr size_t BATCH_WIDTH = 100;

int ToPollTimeout(int64_t nanoseconds) {
    // Rounded up, and at most a minute.
    return static_cast<int>(std::clamp<int64_t>((nanoseconds + 999'999) / 1'000'000, 0, 60'000));
}

// One thread: its loop takes events and keys as they come, and makes a frame when one is due.
class Top {
  public:
    // screen: null in a batch run.
    Top(const TopOptions& options, TopSource& source, std::unique_ptr<TopScreen> screen)
        : options(options), source(source), screen(std::move(screen)) {
        state.request = options.view;
        if (options.isBatch && !options.from.empty()) {
            end = 0;  // of a recording everything is there
        } else if (options.seconds || options.isBatch) {
            end = MonotonicNanoseconds() +
                  static_cast<int64_t>(options.seconds.value_or(BATCH_SECONDS) *
                                       NANOSECONDS_PER_SECOND);
        }
    }

    // Returns an ExitStatus.
    int run(const TerminationSignals& signals);

  private:
    bool waitForFrame(const TerminationSignals& signals);
    bool takeKeys();
    void draw();
    int print();

    const TopOptions& options;
    TopSource& source;
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
        const Result<> advanced = source.advance(state.isPaused || options.isBatch, &state);
        if (!advanced) {
            screen.reset();
            return Fail(EXIT_FAILED, advanced.error());
        }
        if (screen != nullptr) {
            draw();
        }
        lastFrame = MonotonicNanoseconds();
        frameDue = lastFrame + (state.isRecording ? FRAME_TIME : IDLE_FRAME_TIME);
    } while (waitForFrame(signals));
    return options.isBatch ? print() : EXIT_OK;
}

// Handles whatever comes until the next frame is due; false at the end.
bool Top::waitForFrame(const TerminationSignals& signals) {
    const bool hasScreen = screen != nullptr;
    // poll() leaves out what is no descriptor.
    pollfd entries[] = {
        {.fd = signals.fd(), .events = POLLIN, .revents = 0},
        {.fd = source.descriptor(), .events = POLLIN, .revents = 0},
        {.fd = hasScreen ? STDIN_FILENO : -1, .events = POLLIN, .revents = 0},
        {.fd = hasScreen ? screen->signalFd() : -1, .events = POLLIN, .revents = 0}};
    auto& [termination, events, keys, terminalSignals] = entries;
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
        if (events.revents != 0) {
            source.takeEvents();
            frameDue = std::min(frameDue, lastFrame + FRAME_TIME);
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

// False when it is to end.
bool Top::takeKeys() {
    while (const std::optional<int> key = screen->readKey()) {
        const ViewRequest before = state.request;
        const Command command = OnKey(*key, view.rows.size(), view.matching, &state);
        if (command == Command::QUIT) {
            return false;
        }
        if (const Result<> obeyed = source.obey(command, state.time); !obeyed) {
            state.message = obeyed.error();
        }
        isViewDue = isViewDue || command != Command::NONE || state.request != before;
        frameDue = 0;
    }
    return true;
}

void Top::draw() {
    const size_t height = screen->height();
    if (!state.isPaused || isViewDue) {
        isViewDue = false;
        state.request.rowLimit = height - std::min(FrameChrome(height), height);
        view = source.model().view(state.request);
        state.request.firstRow = view.firstRow;
    }
    screen->draw(MakeFrame(view, state, screen->width(), height));
}

// Where a busy machine took all the time for the first frame, the connection is not heard of yet.
int Top::print() {
    source.takeEvents();
    if (const Result<> advanced = source.advance(true, &state); !advanced) {
        return Fail(EXIT_FAILED, advanced.error());
    }
    const char* const columns = std::getenv("COLUMNS");
    const int width = columns != nullptr ? std::atoi(columns) : 0;
    const std::string text =
        MakePlainText(source.model().view(state.request), state,
                      width > 0 && width <= 1000 ? static_cast<size_t>(width) : BATCH_WIDTH);
    if (std::fputs(text.c_str(), stdout) < 0 || std::fflush(stdout) != 0) {
        return Fail(EXIT_FAILED, std::string("cannot write: ") + strerror(errno));
    }
    return state.isRecording || state.connection == TESUBPF_CONNECTED ? EXIT_OK : EXIT_NOT_SERVED;
}

}  // namespace

int RunTop(const TopOptions& options, const TerminationSignals& signals) {
    const bool isLive = options.from.empty();
    const Result<std::unique_ptr<TopSource>> source =
        isLive ? MakeLiveSource(options.socketName, options.procRoot)
               : MakeReplaySource(options.from,
                                  options.isBatch && options.at.empty() ? "end" : options.at);
    if (!source) {
        return Fail(isLive ? EXIT_FAILED : EXIT_USAGE, source.error());
    }
    std::unique_ptr<TopScreen> screen;
    if (!options.isBatch) {
        Result<std::unique_ptr<TopScreen>> opened = TopScreen::open(options.colour);
        if (!opened) {
            return Fail(EXIT_FAILED, opened.error());
        }
        screen = std::move(*opened);
    }
    const int status = Top(options, **source, std::move(screen)).run(signals);
    (*source)->reportDamage();
    return status;
}

}  // namespace Tesu::Bpf
