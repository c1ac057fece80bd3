// SPDX-License-Identifier: Apache-2.0
#include "client/top/screen.h"

#include <ncurses.h>
#include <sys/ioctl.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <iterator>
#include <utility>

#include "client/top/controls.h"

namespace Tesu::Bpf {

namespace {

// After an escape character, how long to wait for the rest of a key's sequence.
constexpr int ESCAPE_DELAY_MS = 25;

enum ColourPair : short { GREEN_PAIR = 1, YELLOW_PAIR, RED_PAIR };

// In the order of Style.
constexpr struct {
    attr_t attributes;
    short pair;  // 0: none
} STYLES[] = {{A_NORMAL, 0},
              {A_BOLD, 0},
              {A_DIM, 0},
              {A_NORMAL, GREEN_PAIR},
              {A_NORMAL, YELLOW_PAIR},
              {A_BOLD, RED_PAIR},
              {A_REVERSE, 0},
              {A_REVERSE | A_BOLD | A_UNDERLINE, 0}};
static_assert(std::size(STYLES) == static_cast<size_t>(Style::SORTED_TITLE) + 1);

attr_t AttributesOf(Style style, bool colour) {
    const auto& [attributes, pair] = STYLES[static_cast<size_t>(style)];
    // Without colours what has one is bold.
    return attributes | (colour ? COLOR_PAIR(pair) : pair != 0 ? A_BOLD : A_NORMAL);
}

constexpr struct {
    int ours;
    int theirs;
} KEYS[] = {{SCREEN_KEY_UP, KEY_UP},
            {SCREEN_KEY_DOWN, KEY_DOWN},
            {SCREEN_KEY_LEFT, KEY_LEFT},
            {SCREEN_KEY_RIGHT, KEY_RIGHT},
            {SCREEN_KEY_PAGE_UP, KEY_PPAGE},
            {SCREEN_KEY_PAGE_DOWN, KEY_NPAGE},
            {SCREEN_KEY_HOME, KEY_HOME},
            {SCREEN_KEY_END, KEY_END},
            {SCREEN_KEY_BACKSPACE, KEY_BACKSPACE},
            {SCREEN_KEY_BACKSPACE, '\b'},
            {SCREEN_KEY_ENTER, KEY_ENTER},
            {SCREEN_KEY_ENTER, '\r'}};

android::base::unique_fd BlockTerminalSignals() {
    sigset_t blocked;
    sigemptyset(&blocked);
    for (const int signal : {SIGWINCH, SIGTSTP, SIGHUP, SIGQUIT}) {
        sigaddset(&blocked, signal);
    }
    pthread_sigmask(SIG_BLOCK, &blocked, nullptr);
    return android::base::unique_fd(signalfd(-1, &blocked, SFD_CLOEXEC | SFD_NONBLOCK));
}

void Resize() {
    winsize size{};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_row > 0 && size.ws_col > 0) {
        resizeterm(size.ws_row, size.ws_col);
    }
    clear();
}

void Suspend() {
    endwin();
    std::raise(SIGSTOP);
    Resize();
    refresh();
}

}  // namespace

Result<std::unique_ptr<TopScreen>> TopScreen::open(bool colour) {
    if (isatty(STDIN_FILENO) != 1 || isatty(STDOUT_FILENO) != 1) {
        return Failure("standard input and output are no terminal; --batch needs none");
    }
    // Before the screen is taken: from then on no signal may end or stop the process.
    android::base::unique_fd signals = BlockTerminalSignals();
    if (newterm(nullptr, stdout, stdin) == nullptr) {
        const char* const terminal = std::getenv("TERM");
        return Failure(std::string("the terminal \"") + (terminal != nullptr ? terminal : "") +
                       "\" is not known here; set TERM, or use --batch");
    }
    return std::unique_ptr<TopScreen>(new TopScreen(colour, std::move(signals)));
}

TopScreen::TopScreen(bool colour, android::base::unique_fd signals)
    : colour(colour && has_colors()), signals(std::move(signals)) {
    cbreak();
    noecho();
    nonl();
    curs_set(0);
    keypad(stdscr, TRUE);
    nodelay(stdscr, TRUE);
    set_escdelay(ESCAPE_DELAY_MS);
    if (this->colour) {
        start_color();
        use_default_colors();
        init_pair(GREEN_PAIR, COLOR_GREEN, -1);
        init_pair(YELLOW_PAIR, COLOR_YELLOW, -1);
        init_pair(RED_PAIR, COLOR_RED, -1);
    }
}

TopScreen::~TopScreen() {
    endwin();
}

size_t TopScreen::width() const {
    return static_cast<size_t>(std::max(getmaxx(stdscr), 0));
}

size_t TopScreen::height() const {
    return static_cast<size_t>(std::max(getmaxy(stdscr), 0));
}

void TopScreen::draw(const std::vector<StyledLine>& lines) {
    erase();
    const size_t count = std::min(lines.size(), height());
    for (size_t row = 0; row < count; ++row) {
        move(static_cast<int>(row), 0);
        for (const Span& span : lines[row]) {
            attrset(AttributesOf(span.style, colour));
            // Fails at the last cell of the screen, after having filled it.
            addnstr(span.text.c_str(), static_cast<int>(span.text.size()));
        }
    }
    attrset(A_NORMAL);
    refresh();
}

std::optional<int> TopScreen::readKey() {
    const int key = getch();
    if (key == ERR) {
        return std::nullopt;
    }
    for (const auto& [ours, theirs] : KEYS) {
        if (key == theirs) {
            return ours;
        }
    }
    return key > 0xff ? SCREEN_KEY_OTHER : key;
}

bool TopScreen::handleSignals() {
    signalfd_siginfo info{};
    while (TEMP_FAILURE_RETRY(read(signals.get(), &info, sizeof(info))) == sizeof(info)) {
        if (info.ssi_signo == SIGWINCH) {
            Resize();
        } else if (info.ssi_signo == SIGTSTP) {
            Suspend();
        } else {
            return false;
        }
    }
    return true;
}

}  // namespace Tesu::Bpf
