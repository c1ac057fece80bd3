// SPDX-License-Identifier: Apache-2.0
#include "tests/support/child_process.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <thread>

#include "tests/support/emulator.h"

using std::chrono::milliseconds;
using std::chrono::steady_clock;

namespace {

constexpr milliseconds STEP{10};

// Appends what is there; closes the descriptor at its end.
void Drain(android::base::unique_fd& fd, std::string& text) {
    char block[4096];
    const ssize_t count = read(fd.get(), block, sizeof(block));
    if (count > 0) {
        text.append(block, static_cast<size_t>(count));
    } else {
        fd.reset();
    }
}

}  // namespace

ChildProcess::ChildProcess(const std::vector<std::string>& arguments) {
    int outputPipe[2];
    int errorPipe[2];
    if (pipe2(outputPipe, O_CLOEXEC) != 0 || pipe2(errorPipe, O_CLOEXEC) != 0) {
        return;
    }
    const std::vector<std::string> command = CommandLine(arguments);
    std::vector<char*> argv;
    argv.reserve(command.size() + 1);
    for (const std::string& argument : command) {
        argv.push_back(const_cast<char*>(argument.c_str()));
    }
    argv.push_back(nullptr);
    child = fork();
    if (child == 0) {
        dup2(outputPipe[1], STDOUT_FILENO);
        dup2(errorPipe[1], STDERR_FILENO);
        execvp(argv[0], argv.data());
        _exit(127);
    }
    outputFd.reset(outputPipe[0]);
    errorFd.reset(errorPipe[0]);
    close(outputPipe[1]);
    close(errorPipe[1]);
}

ChildProcess::~ChildProcess() {
    if (child > 0 && !status) {
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
    }
}

void ChildProcess::sendSignal(int signal) const {
    if (child > 0 && !status) {
        kill(child, signal);
    }
}

int ChildProcess::heldOutput() const {
    int bytes = 0;
    ioctl(outputFd.get(), FIONREAD, &bytes);
    return bytes;
}

bool ChildProcess::readSome(milliseconds duration) {
    // poll() passes over negative descriptors.
    pollfd entries[] = {
        {.fd = outputHeld ? -1 : outputFd.get(), .events = POLLIN, .revents = 0},
        {.fd = errorFd.get(), .events = POLLIN, .revents = 0},
    };
    if (entries[0].fd == -1 && entries[1].fd == -1) {
        return false;
    }
    if (poll(entries, 2, static_cast<int>(duration.count())) > 0) {
        if (entries[0].revents != 0) {
            Drain(outputFd, output);
        }
        if (entries[1].revents != 0) {
            Drain(errorFd, error);
        }
    }
    return true;
}

bool ChildProcess::waitFor(const std::string& stream, const std::string& text,
                           milliseconds patience) {
    const auto limit = steady_clock::now() + patience;
    while (stream.find(text) == std::string::npos) {
        if (steady_clock::now() >= limit || !readSome(STEP)) {
            return false;
        }
    }
    return true;
}

bool ChildProcess::waitForOutput(const std::string& text, milliseconds patience) {
    return waitFor(output, text, patience);
}

bool ChildProcess::waitForError(const std::string& text) {
    return waitFor(error, text, TEST_PATIENCE);
}

std::optional<int> ChildProcess::waitForExit() {
    const auto limit = steady_clock::now() + TEST_PATIENCE;
    while (!status && steady_clock::now() < limit) {
        int result = 0;
        if (waitpid(child, &result, WNOHANG) == child) {
            status = WIFEXITED(result) ? WEXITSTATUS(result) : 128 + WTERMSIG(result);
        } else if (!readSome(STEP)) {
            std::this_thread::sleep_for(STEP);
        }
    }
    // A program that has ended writes no more: read to the end of both.
    outputHeld = false;
    while (status && steady_clock::now() < limit && readSome(STEP)) {
    }
    return status;
}
