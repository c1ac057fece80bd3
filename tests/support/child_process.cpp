// SPDX-License-Identifier: Apache-2.0
#include "tests/support/child_process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utmp.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <sstream>

namespace {

// Appends what is there; closes the descriptor at its end.
void Drain(android::base::unique_fd& fd, std::string& text) {
    char block[65536];
    const ssize_t count = read(fd.get(), block, sizeof(block));
    text.append(block, static_cast<size_t>(std::max<ssize_t>(count, 0)));
    if (count <= 0) {
        fd.reset();
    }
}

}  // namespace

std::vector<std::string> EmulatorCommand() {
    const char* const command = std::getenv("TESUBPF_EMULATOR");
    std::istringstream words(command != nullptr ? command : "");
    return {std::istream_iterator<std::string>(words), {}};
}

ChildProcess::ChildProcess(const std::vector<std::string>& arguments, bool onTerminal) {
    int outputs[2] = {-1, -1};  // our end, the program's
    int errors[2] = {-1, -1};
    if (onTerminal) {
        const winsize size{24, 80, 0, 0};
        EXPECT_EQ(openpty(&outputs[0], &outputs[1], nullptr, nullptr, &size), 0);
        terminalFd.reset(fcntl(outputs[0], F_DUPFD_CLOEXEC, 0));
        tcgetattr(outputs[0], &modesBefore);
    } else {
        EXPECT_EQ(pipe2(outputs, O_CLOEXEC) + pipe2(errors, O_CLOEXEC), 0);
    }
    // What is the machine's own runs without the emulator.
    auto command = EmulatorCommand();
    command.resize(arguments[0].starts_with("/bin/") ? 0 : command.size());
    command.insert(command.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv(command.size() + 1);
    std::ranges::transform(command, argv.begin(), [](std::string& word) { return word.data(); });
    child = fork();
    if (child == 0) {
        if (onTerminal) {
            close(outputs[0]);
            login_tty(outputs[1]);
            setenv("TERM", "xterm", 1);
            setenv("LC_ALL", "C.UTF-8", 1);
        } else {
            dup2(outputs[1], STDOUT_FILENO);
            dup2(errors[1], STDERR_FILENO);
        }
        execvp(argv[0], argv.data());
        _exit(127);
    }
    close(outputs[1]);
    close(errors[1]);
    outputFd.reset(outputs[0]);
    errorFd.reset(errors[0]);
    fcntl(outputs[0], F_SETFD, FD_CLOEXEC);
}

ChildProcess::~ChildProcess() {
    if (child > 0 && !status) {  // else the number may be another child's by now
        sendSignal(SIGKILL);
        waitpid(child, nullptr, 0);
    }
}

void ChildProcess::sendSignal(int signal) const {
    if (child > 0 && !status) {
        kill(child, signal);
    }
}

bool ChildProcess::readSome() {
    // poll() passes over negative descriptors.
    pollfd entries[] = {{outputFd.get(), POLLIN, 0}, {errorFd.get(), POLLIN, 0}};
    if (entries[0].fd == -1 && entries[1].fd == -1) {
        return false;
    }
    poll(entries, 2, 10);
    if (entries[0].revents != 0) {
        Drain(outputFd, output);
    }
    if (entries[1].revents != 0) {
        Drain(errorFd, error);
    }
    return true;
}

bool ChildProcess::waitFor(const std::string& stream, size_t start, const std::string& text,
                           std::chrono::milliseconds patience) {
    const auto isThere = [&] {
        const bool found = stream.find(text, start) != std::string::npos;
        // What has been searched is not searched again.
        start = std::max(start, stream.size() - std::min(stream.size(), text.size()));
        return found;
    };
    return WaitUntil([&] { return isThere() || (readSome() && isThere()); }, patience);
}

std::optional<int> ChildProcess::waitForExit() {
    WaitUntil([this] {
        int result = 0;
        if (waitpid(child, &result, WNOHANG) == child) {
            status = WIFEXITED(result) ? WEXITSTATUS(result) : 128 + WTERMSIG(result);
        }
        readSome();
        return status.has_value();
    });
    // A program that has ended writes no more: read to the end of both.
    WaitUntil([this] { return !status || !readSome(); });
    return status;
}

void ChildProcess::type(const std::string& keys) const {
    EXPECT_EQ(write(terminalFd.get(), keys.data(), keys.size()), static_cast<ssize_t>(keys.size()));
}

void ChildProcess::resize(unsigned short width, unsigned short height) const {
    const winsize size{height, width, 0, 0};
    ioctl(terminalFd.get(), TIOCSWINSZ, &size);
}

bool ChildProcess::hasTerminalModesOfBefore() const {
    termios now{};
    tcgetattr(terminalFd.get(), &now);  // tells those of the program's side
    return now.c_iflag == modesBefore.c_iflag && now.c_oflag == modesBefore.c_oflag &&
           now.c_lflag == modesBefore.c_lflag && now.c_cc[VMIN] == modesBefore.c_cc[VMIN];
}
