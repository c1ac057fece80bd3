// SPDX-License-Identifier: Apache-2.0
//
// The terminal as a full screen: paints frames, gives keys.
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "client/top_frame.h"

namespace Tesu::Bpf {

// The keys that are no character.
enum ScreenKey {
    SCREEN_KEY_UP = 0x110000,  // behind the last character
    SCREEN_KEY_DOWN,
    SCREEN_KEY_PAGE_UP,
    SCREEN_KEY_PAGE_DOWN,
    SCREEN_KEY_HOME,
    SCREEN_KEY_END,
    SCREEN_KEY_OTHER,
};
inline constexpr int SCREEN_KEY_ENTER = '\n';
inline constexpr int SCREEN_KEY_ESCAPE = 0x1b;
inline constexpr int SCREEN_KEY_BACKSPACE = 0x7f;

// Standard input and output as a screen from open() until the destructor, which gives the terminal
// back as it was. One at a time in a process; used by one thread. Installs no signal handlers that
// matter: SIGWINCH and SIGTSTP are to be blocked and answered with resize() and suspend().
class TopScreen {
  public:
    // Null with the reason in `error`: no terminal, or one of an unknown kind.
    static std::unique_ptr<TopScreen> open(bool colour, std::string* error);
    ~TopScreen();
    TopScreen(const TopScreen&) = delete;
    TopScreen& operator=(const TopScreen&) = delete;

    size_t width() const;
    size_t height() const;

    // Shows the lines from the top; the rest of the screen is empty. Only what differs from the
    // frame before is sent.
    void draw(const std::vector<FrameLine>& lines);

    // The next key that was pressed: a byte of a character or a ScreenKey; none: none waits.
    std::optional<int> readKey();

    // The terminal has another size.
    void resize();

    // Gives the terminal back, stops the process until it is continued, takes the terminal again.
    void suspend();

  private:
    explicit TopScreen(bool colour);

    bool colour;
};

}  // namespace Tesu::Bpf
