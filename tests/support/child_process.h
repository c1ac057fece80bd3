// SPDX-License-Identifier: Apache-2.0
//
// A program started by a test, with its output and error output read through pipes. Killed and
// reaped at the latest by the destructor.
#pragma once

#include <android-base/unique_fd.h>
#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "tests/support/wait_until.h"

// Used by one thread.
class ChildProcess {
  public:
    // arguments[0] is the program's path.
    explicit ChildProcess(const std::vector<std::string>& arguments);
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    pid_t pid() const { return child; }
    void sendSignal(int signal) const;
    // Leaves the program's output without a reader.
    void closeOutput() { outputFd.reset(); }
    // From now on the program's output is left in its pipe, until the program has ended.
    void holdOutput() { outputHeld = true; }

    // Bytes of output that wait in the pipe.
    int heldOutput() const;

    // Whether the text appears, before the patience runs out, in what the program writes.
    bool waitForOutput(const std::string& text, std::chrono::milliseconds patience = TEST_PATIENCE);
    bool waitForError(const std::string& text);
    // Exit status, or 128 + signal number; none when it still runs after the patience.
    std::optional<int> waitForExit();

    // What has been read so far.
    std::string output;
    std::string error;

  private:
    // Reads what comes within `duration`; false when both pipes have ended.
    bool readSome(std::chrono::milliseconds duration);
    bool waitFor(const std::string& stream, const std::string& text,
                 std::chrono::milliseconds patience);

    pid_t child = -1;
    std::optional<int> status;
    bool outputHeld = false;
    android::base::unique_fd outputFd;
    android::base::unique_fd errorFd;
};
