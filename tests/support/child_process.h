// SPDX-License-Identifier: Apache-2.0
//
// A program started by a test, its output and error output read through pipes, or on a terminal of
// its own. Killed and reaped at the latest by the destructor.
#pragma once

#include <android-base/unique_fd.h>
#include <gtest/gtest.h>
#include <sys/types.h>
#include <termios.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "records/contract.h"
#include "tests/support/wait_until.h"

// A build for another machine runs in a user-mode emulator, which the environment names with its
// options. It translates the program, not the kernel: what /proc tells about the program is about
// the emulator. Empty where there is none.
std::vector<std::string> EmulatorCommand();

// Used by one thread.
class ChildProcess {
  public:
    // arguments[0] is the program's path. On a terminal, an xterm of 80 x 24, output and error
    // output are one.
    explicit ChildProcess(const std::vector<std::string>& arguments, bool onTerminal = false);
    ~ChildProcess();

    pid_t pid() const { return child; }
    void sendSignal(int signal) const;
    // Leaves the program's output without a reader.
    void closeOutput() { outputFd.reset(); }

    // Whether the text appears, before the patience runs out, in what the program writes.
    bool waitForOutput(const std::string& text,
                       std::chrono::milliseconds patience = TEST_PATIENCE) {
        return waitFor(output, 0, text, patience);
    }
    bool waitForError(const std::string& text) { return waitFor(error, 0, text); }
    // The same for what is read of the program from now on.
    bool waitForNewOutput(const std::string& text) { return waitFor(output, output.size(), text); }
    // Exit status, or 128 + signal number; none when it still runs after the patience.
    std::optional<int> waitForExit();

    // On a terminal only; the last also when the program has ended.
    void type(const std::string& keys) const;
    void resize(unsigned short width, unsigned short height) const;
    bool hasTerminalModesOfBefore() const;

    // What has been read so far.
    std::string output;
    std::string error;

  private:
    // Reads what comes within a moment; false when both outputs have ended.
    bool readSome();
    bool waitFor(const std::string& stream, size_t start, const std::string& text,
                 std::chrono::milliseconds patience = TEST_PATIENCE);

    pid_t child = -1;
    std::optional<int> status;
    android::base::unique_fd outputFd;
    android::base::unique_fd errorFd;
    android::base::unique_fd terminalFd;  // our side of it
    termios modesBefore{};
};

#ifdef TESUBPFD_PATH
// A daemon that waits for its clients however far a busy machine lets them fall behind.
inline std::vector<std::string> PatientDaemon(const std::vector<std::string>& arguments = {}) {
    using namespace Tesu::Bpf;
    std::vector<std::string> command = {TESUBPFD_PATH, "--property",
                                        CLIENT_QUEUE_BYTES_PROPERTY + std::string("=0"),
                                        "--property", QUEUE_BYTES_PROPERTY + std::string("=0")};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return command;
}
#endif

// What a program prints, error output last, that runs to its end by itself.
inline std::string OutputOf(const std::vector<std::string>& arguments, int status = 0) {
    ChildProcess program(arguments);
    EXPECT_EQ(program.waitForExit(), status) << program.error;
    return program.output + program.error;
}
