// SPDX-License-Identifier: Apache-2.0
#include "client/top.h"

#include <android-base/unique_fd.h>
#include <poll.h>
#include <sys/signalfd.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "client/live_processes.h"
#include "client/top_frame.h"
#include "client/top_screen.h"
#include "util/monotonic_clock.h"

namespace Tesu::Bpf {

namespace {

// Between two frames that nobody asked for by a key.
constexpr int64_t FRAME_TIME = 250'000'000;
// Without news: the ages, rates and histories go on.
constexpr int64_t IDLE_FRAME_TIME = NANOSECONDS_PER_SECOND;
constexpr double BATCH_SECONDS = 2;
constexpr size_t BATCH_WIDTH = 100;
constexpr size_t MAX_FILTER = 64;

struct SortName {
    const char* name;
    SortKey key;
    int pressed;
};
constexpr SortName SORT_NAMES[] = {
    {"memory", SortKey::MEMORY, 'm'},   {"change", SortKey::CHANGE, 'c'},
    {"threads", SortKey::THREADS, 't'}, {"fds", SortKey::FDS, 'f'},
    {"age", SortKey::AGE, 'a'},         {"pid", SortKey::PID, 'p'},
    {"name", SortKey::NAME, 'n'}};

std::string TimeOfDay() {
    const time_t now = time(nullptr);
    tm local{};
    std::array<char, 16> text{};
    localtime_r(&now, &local);
    return {text.data(), strftime(text.data(), text.size(), "%H:%M:%S", &local)};
}

int ToPollTimeout(int64_t nanoseconds) {
    // Rounded up, and at most a minute.
    return static_cast<int>(std::clamp<int64_t>((nanoseconds + 999'999) / 1'000'000, 0, 60'000));
}

// What else may happen to a terminal program, as a descriptor: its signals stay blocked.
class TerminalSignals {
  public:
    TerminalSignals() {
        sigset_t signals;
        sigemptyset(&signals);
        for (const int signal : {SIGWINCH, SIGTSTP, SIGHUP, SIGQUIT}) {
            sigaddset(&signals, signal);
        }
        pthread_sigmask(SIG_BLOCK, &signals, nullptr);
        signalFd.reset(signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
    }

    // Borrowed.
    int fd() const { return signalFd.get(); }

    // The number of the next signal; 0 when none waits.
    int next() const {
        signalfd_siginfo info{};
        const ssize_t size = TEMP_FAILURE_RETRY(read(signalFd.get(), &info, sizeof(info)));
        return size == sizeof(info) ? static_cast<int>(info.ssi_signo) : 0;
    }

  private:
    android::base::unique_fd signalFd;
};

class Top {
  public:
    Top(const TopOptions& options, const TerminationSignals& signals)
        : options(options),
          signals(signals),
          processes(options.socketName, options.procRoot),
          begin(MonotonicNanoseconds()) {
        state.request = options.view;
    }

    int run(const TerminalSignals& terminalSignals);
    int runBatch();

  private:
    bool onKey(int key);
    void onFilterKey(int key);
    void scroll(int64_t rows);
    bool onTerminalSignals(const TerminalSignals& terminalSignals);
    bool refresh();
    void draw();
    int64_t timeLeft() const;

    const TopOptions& options;
    const TerminationSignals& signals;
    std::unique_ptr<TopScreen> screen;
    FrameState state;
    ProcessView view;
    // A view that stands still is taken anew for this only.
    bool isViewDue = true;
    LiveProcesses processes;
    const int64_t begin;
};

int64_t Top::timeLeft() const {
    if (!options.seconds && !options.isBatch) {
        return INT64_MAX;
    }
    const double seconds = options.seconds.value_or(BATCH_SECONDS);
    return begin + static_cast<int64_t>(seconds * NANOSECONDS_PER_SECOND) - MonotonicNanoseconds();
}

// False, with a message, when /proc cannot be read.
bool Top::refresh() {
    if (processes.refresh()) {
        return true;
    }
    const int error = errno;
    screen.reset();
    std::fprintf(stderr, "tesubpf: cannot read %s: %s\n", options.procRoot.c_str(),
                 strerror(error));
    return false;
}

void Top::draw() {
    state.connection = processes.connection();
    state.clock = TimeOfDay();
    const size_t height = screen->height();
    if (!state.isPaused || isViewDue) {
        isViewDue = false;
        state.request.rowLimit = height - std::min(FrameChrome(height), height);
        view = processes.view(state.request);
        state.request.firstRow = view.firstRow;
    }
    screen->draw(MakeFrame(view, state, screen->width(), height));
}

int Top::run(const TerminalSignals& terminalSignals) {
    std::string error;
    screen = TopScreen::open(options.colour, &error);
    if (screen == nullptr) {
        std::fprintf(stderr, "tesubpf: %s\n", error.c_str());
        return TOP_FAILED;
    }
    if (!processes.start()) {
        screen.reset();
        std::perror("tesubpf: cannot create an event descriptor");
        return TOP_FAILED;
    }
    pollfd entries[] = {{.fd = signals.fd(), .events = POLLIN, .revents = 0},
                        {.fd = terminalSignals.fd(), .events = POLLIN, .revents = 0},
                        {.fd = STDIN_FILENO, .events = POLLIN, .revents = 0},
                        {.fd = processes.newsFd(), .events = POLLIN, .revents = 0}};
    constexpr nfds_t ALL = 4;
    constexpr nfds_t WITHOUT_NEWS = 3;
    int64_t lastFrame = 0;
    bool isDrawDue = true;
    while (timeLeft() > 0) {
        int64_t sinceFrame = MonotonicNanoseconds() - lastFrame;
        if (isDrawDue || sinceFrame >= IDLE_FRAME_TIME) {
            if (!refresh()) {
                return TOP_FAILED;
            }
            draw();
            lastFrame = MonotonicNanoseconds();
            sinceFrame = 0;
            isDrawDue = false;
        }
        // News wait until the next frame may come.
        const bool mayDraw = sinceFrame >= FRAME_TIME;
        const int64_t wait = (mayDraw ? IDLE_FRAME_TIME : FRAME_TIME) - sinceFrame;
        poll(entries, mayDraw ? ALL : WITHOUT_NEWS, ToPollTimeout(std::min(wait, timeLeft())));
        if ((entries[0].revents | (entries[2].revents & (POLLHUP | POLLERR | POLLNVAL))) != 0) {
            break;
        }
        if (entries[1].revents != 0) {
            if (!onTerminalSignals(terminalSignals)) {
                break;
            }
            isDrawDue = true;
        }
        if (entries[2].revents != 0) {
            while (const std::optional<int> key = screen->readKey()) {
                if (!onKey(*key)) {
                    return TOP_OK;
                }
                isDrawDue = true;
            }
        }
        isDrawDue = isDrawDue || (mayDraw && entries[3].revents != 0);
        for (pollfd& entry : entries) {
            entry.revents = 0;
        }
    }
    return TOP_OK;
}

// False when it is to end.
bool Top::onTerminalSignals(const TerminalSignals& terminalSignals) {
    while (const int signal = terminalSignals.next()) {
        if (signal == SIGWINCH) {
            screen->resize();
            isViewDue = true;
        } else if (signal == SIGTSTP) {
            screen->suspend();
        } else {
            return false;
        }
    }
    return true;
}

void Top::scroll(int64_t rows) {
    const auto first = static_cast<int64_t>(state.request.firstRow) + rows;
    // The view takes back what is too far.
    state.request.firstRow =
        static_cast<size_t>(std::clamp<int64_t>(first, 0, static_cast<int64_t>(view.matching)));
}

// False when it is to end.
bool Top::onKey(int key) {
    if (state.isFilterTyped) {
        onFilterKey(key);
        return true;
    }
    if (key == 'q') {
        return false;
    }
    if (state.isHelpShown) {
        state.isHelpShown = false;
        return true;
    }
    for (const SortName& sort : SORT_NAMES) {
        if (key == sort.pressed) {
            state.request.sortKey = sort.key;
            state.request.isReversed = false;
            state.request.firstRow = 0;
            isViewDue = true;
            return true;
        }
    }
    isViewDue = key != ' ';
    const auto page = static_cast<int64_t>(view.rows.size());
    switch (key) {
        case 'r':
            state.request.isReversed = !state.request.isReversed;
            break;
        case 'R':
            processes.readAgain();
            break;
        case 'k':
            state.request.withKernelThreads = !state.request.withKernelThreads;
            break;
        case ' ':
            state.isPaused = !state.isPaused;
            break;
        case '?':
        case 'h':
            state.isHelpShown = true;
            break;
        case '/':
            state.isFilterTyped = true;
            break;
        case SCREEN_KEY_ESCAPE:
            state.request.filter.clear();
            break;
        case SCREEN_KEY_UP:
            scroll(-1);
            break;
        case SCREEN_KEY_DOWN:
            scroll(1);
            break;
        case SCREEN_KEY_PAGE_UP:
            scroll(-page);
            break;
        case SCREEN_KEY_PAGE_DOWN:
            scroll(page);
            break;
        case SCREEN_KEY_HOME:
            scroll(INT32_MIN);
            break;
        case SCREEN_KEY_END:
            scroll(INT32_MAX);
            break;
        default:
            break;
    }
    return true;
}

void Top::onFilterKey(int key) {
    std::string& filter = state.request.filter;
    if (key == SCREEN_KEY_ENTER) {
        state.isFilterTyped = false;
    } else if (key == SCREEN_KEY_ESCAPE) {
        state.isFilterTyped = false;
        filter.clear();
    } else if (key == SCREEN_KEY_BACKSPACE) {
        // A whole character: its continuation bytes, and the byte that begins it.
        while (!filter.empty() && (static_cast<unsigned char>(filter.back()) & 0xc0) == 0x80) {
            filter.pop_back();
        }
        if (!filter.empty()) {
            filter.pop_back();
        }
    } else if (key >= ' ' && key <= 0xff && filter.size() < MAX_FILTER) {
        filter += static_cast<char>(key);
    }
    state.request.firstRow = 0;
    isViewDue = true;
}

int Top::runBatch() {
    if (!processes.start()) {
        std::perror("tesubpf: cannot create an event descriptor");
        return TOP_FAILED;
    }
    for (int64_t left = timeLeft(); left > 0; left = timeLeft()) {
        if (!refresh()) {
            return TOP_FAILED;
        }
        // As often as a screen would be drawn.
        pollfd entry{.fd = signals.fd(), .events = POLLIN, .revents = 0};
        if (poll(&entry, 1, ToPollTimeout(std::min(left, FRAME_TIME))) > 0) {
            break;
        }
    }
    if (!refresh()) {
        return TOP_FAILED;
    }
    state.connection = processes.connection();
    state.clock = TimeOfDay();
    const char* const columns = std::getenv("COLUMNS");
    const int width = columns != nullptr ? std::atoi(columns) : 0;
    const std::string text =
        MakePlainText(processes.view(state.request), state,
                      width > 0 && width <= 1000 ? static_cast<size_t>(width) : BATCH_WIDTH);
    if (std::fputs(text.c_str(), stdout) < 0 || std::fflush(stdout) != 0) {
        std::fprintf(stderr, "tesubpf: cannot write: %s\n", strerror(errno));
        return TOP_FAILED;
    }
    return state.connection == Connection::CONNECTED ? TOP_OK : TOP_NOT_SERVED;
}

}  // namespace

std::optional<SortKey> ParseSortKey(const std::string& name) {
    for (const SortName& sort : SORT_NAMES) {
        if (name == sort.name) {
            return sort.key;
        }
    }
    return std::nullopt;
}

int RunTop(const TopOptions& options, const TerminationSignals& signals) {
    if (options.isBatch) {
        return Top(options, signals).runBatch();
    }
    const TerminalSignals terminalSignals;
    return Top(options, signals).run(terminalSignals);
}

}  // namespace Tesu::Bpf
