// SPDX-License-Identifier: Apache-2.0
//
// The terminal as a full screen: paints frames, gives keys.
#pragma once

#include <android-base/unique_fd.h>

#include <cstddef>
#include <memory>
#include <optional>
#include <vector>

#include "client/top/styled_line.h"
#include "util/result.h"

namespace Tesu::Bpf {

// Standard input and output as a screen from open() until the destructor, which gives the terminal
// back as it was. One at a time in a process; used by one thread, in which it blocks SIGWINCH,
// SIGTSTP, SIGHUP and SIGQUIT, for good.
class TopScreen {
  public:
    // Fails without a terminal, or on one of an unknown kind.
    static Result<std::unique_ptr<TopScreen>> open(bool colour);
    ~TopScreen();
    TopScreen(const TopScreen&) = delete;
    TopScreen& operator=(const TopScreen&) = delete;

    size_t width() const;
    size_t height() const;

    // Shows the lines from the top; the rest of the screen is empty. Only what differs from the
    // frame before is sent.
    void draw(const std::vector<StyledLine>& lines);

    // The next key that was pressed: a byte of a character or a ScreenKey; none: none waits.
    std::optional<int> readKey();

    // Readable when a signal of the terminal has come. Borrowed.
    int signalFd() const { return signals.get(); }
    // Takes another size as the terminal has it; gives the terminal back and stops the process
    // until it is continued. False when the terminal has gone, or the user ends the program.
    bool handleSignals();

  private:
    TopScreen(bool colour, android::base::unique_fd signals);

    bool colour;
    android::base::unique_fd signals;
};

}  // namespace Tesu::Bpf
