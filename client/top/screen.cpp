// SPDX-License-Identifier: Apache-2.0
#include "client/top/screen.h"

#include <ncurses.h>
#include <sys/ioctl.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <utility>

#include "client/top/controls.h"

namespace Tesu::Bpf {

namespace {

// After an escape character, how long to wait for the rest of a key's sequence.
constexpr int ESCAPE_DELAY_MS = 25;

enum ColourPair : short { GREEN_PAIR = 1, YELLOW_PAIR, RED_PAIR };

attr_t AttributesOf(Style style, bool colour) {
    // Without colours what matters is bold.
    const auto painted = [colour](ColourPair pair) {
        return colour ? static_cast<attr_t>(COLOR_PAIR(pair)) : A_BOLD;
    };
    switch (style) {
        case Style::PLAIN:
            return A_NORMAL;
        case Style::STRONG:
            return A_BOLD;
        case Style::FAINT:
            return A_DIM;
        case Style::GOOD:
            return painted(GREEN_PAIR);
        case Style::WARNING:
            return painted(YELLOW_PAIR);
        case Style::BAD:
            return painted(RED_PAIR) | A_BOLD;
        case Style::TITLE:
            return A_REVERSE;
        case Style::SORTED_TITLE:
            return A_REVERSE | A_BOLD | A_UNDERLINE;
    }
    return A_NORMAL;
}

android::base::unique_fd BlockTerminalSignals() {
    sigset_t blocked;
    sigemptyset(&blocked);
    for (const int signal : {SIGWINCH, SIGTSTP, SIGHUP, SIGQUIT}) {
        sigaddset(&blocked, signal);
    }
    pthread_sigmask(SIG_BLOCK, &blocked, nullptr);
    return android::base::unique_fd(signalfd(-1, &blocked, SFD_CLOEXEC | SFD_NONBLOCK));
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
    switch (key) {
        case ERR:
            return std::nullopt;
        case KEY_UP:
            return SCREEN_KEY_UP;
        case KEY_DOWN:
            return SCREEN_KEY_DOWN;
        case KEY_PPAGE:
            return SCREEN_KEY_PAGE_UP;
        case KEY_NPAGE:
            return SCREEN_KEY_PAGE_DOWN;
        case KEY_HOME:
            return SCREEN_KEY_HOME;
        case KEY_END:
            return SCREEN_KEY_END;
        case KEY_BACKSPACE:
        case '\b':
            return SCREEN_KEY_BACKSPACE;
        case KEY_ENTER:
        case '\r':
            return SCREEN_KEY_ENTER;
        default:
            return key > 0xff ? SCREEN_KEY_OTHER : key;
    }
}

bool TopScreen::handleSignals() {
    signalfd_siginfo info{};
    while (TEMP_FAILURE_RETRY(read(signals.get(), &info, sizeof(info))) == sizeof(info)) {
        if (info.ssi_signo == SIGWINCH) {
            resize();
        } else if (info.ssi_signo == SIGTSTP) {
            suspend();
        } else {
            return false;
        }
    }
    return true;
}

void TopScreen::resize() {
    winsize size{};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_row > 0 && size.ws_col > 0) {
        resizeterm(size.ws_row, size.ws_col);
        clear();
    }
}

void TopScreen::suspend() {
    endwin();
    std::raise(SIGSTOP);
    resize();
    clear();
    refresh();
}

}  // namespace Tesu::Bpf
