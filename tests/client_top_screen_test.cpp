// SPDX-License-Identifier: Apache-2.0
//
// `tesubpf top` as a user runs it: on a pseudo-terminal, against a real server.
#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>
#include <utmp.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "records/raw_event.h"
#include "tests/support/child_process.h"
#include "tests/support/emulator.h"
#include "tests/support/test_service.h"
#include "tests/support/wait_until.h"
#include "util/monotonic_clock.h"

namespace Tesu::Bpf {
namespace {

using testing::HasSubstr;
using testing::Not;

// What xterm's description begins and ends a full-screen program with.
constexpr const char* ENTER_SCREEN = "\x1b[?1049h";
constexpr const char* LEAVE_SCREEN = "\x1b[?1049l";
constexpr const char* SHOW_CURSOR = "\x1b[?25h";

constexpr size_t TOP_SUBSCRIPTIONS = 5;
// No machine has a process of this number.
constexpr int32_t GHOST_PID = 4194304;

template <class T>
std::string Bytes(const T& record) {
    return {reinterpret_cast<const char*>(&record), sizeof(record)};
}

// Forked later than anything that is read of /proc, so that it stays although /proc has none such.
std::string GhostForked() {
    RawTaskCreateEvent record{};
    record.header = {RAW_EVENT_TASK_CREATE, 0,
                     MonotonicNanoseconds() + 3600 * NANOSECONDS_PER_SECOND};
    record.pid = GHOST_PID;
    record.taskType = RAW_TASK_PROCESS;
    std::strncpy(record.comm, "ghost-proc", sizeof(record.comm));
    return Bytes(record);
}

std::string GhostGrown() {
    return Bytes(RawRssStatEvent{
        {RAW_EVENT_RSS_STAT, 0, MonotonicNanoseconds() + 3601 * NANOSECONDS_PER_SECOND},
        GHOST_PID,
        1,
        20 << 20});
}

// The program on a terminal of its own. Killed and reaped at the latest by the destructor.
class TerminalProgram {
  public:
    explicit TerminalProgram(const std::vector<std::string>& arguments,
                             const char* terminal = "xterm") {
        winsize size{.ws_row = 24, .ws_col = 80, .ws_xpixel = 0, .ws_ypixel = 0};
        int ours = -1;
        int theirs = -1;
        EXPECT_EQ(openpty(&ours, &theirs, nullptr, nullptr, &size), 0);
        master.reset(ours);
        slave.reset(theirs);
        fcntl(ours, F_SETFD, FD_CLOEXEC);
        tcgetattr(theirs, &before);
        const std::vector<std::string> command = CommandLine(arguments);
        std::vector<char*> argv;
        argv.reserve(command.size() + 1);
        for (const std::string& argument : command) {
            argv.push_back(const_cast<char*>(argument.c_str()));
        }
        argv.push_back(nullptr);
        child = fork();
        if (child == 0) {
            login_tty(theirs);
            setenv("TERM", terminal, 1);
            unsetenv("LC_ALL");
            setenv("LANG", "C.UTF-8", 1);
            execvp(argv[0], argv.data());
            _exit(127);
        }
    }
    ~TerminalProgram() {
        if (!status) {
            kill(child, SIGKILL);
            waitpid(child, nullptr, 0);
        }
    }

    void press(const std::string& keys) const {
        EXPECT_EQ(write(master.get(), keys.data(), keys.size()), static_cast<ssize_t>(keys.size()));
    }
    void send(int signal) const { kill(child, signal); }
    void resize(unsigned short width, unsigned short height) const {
        const winsize size{.ws_row = height, .ws_col = width, .ws_xpixel = 0, .ws_ypixel = 0};
        ioctl(master.get(), TIOCSWINSZ, &size);
    }

    // Whether the text is sent to the screen from now on, within the patience.
    bool waitForNew(const std::string& text) {
        const size_t start = output.size();
        return WaitUntil(
            [&] { return readSome() && output.find(text, start) != std::string::npos; });
    }
    std::optional<int> waitForExit() {
        WaitUntil([&] {
            readSome();
            int result = 0;
            if (!status && waitpid(child, &result, WNOHANG) == child) {
                status = WIFEXITED(result) ? WEXITSTATUS(result) : 128 + WTERMSIG(result);
            }
            return status.has_value();
        });
        readSome();
        return status;
    }

    bool hasTerminalModesOfBefore() const {
        termios now{};
        tcgetattr(slave.get(), &now);
        return now.c_iflag == before.c_iflag && now.c_oflag == before.c_oflag &&
               now.c_cflag == before.c_cflag && now.c_lflag == before.c_lflag &&
               std::memcmp(now.c_cc, before.c_cc, sizeof(now.c_cc)) == 0;
    }

    std::string output;

  private:
    bool readSome() {
        pollfd entry{.fd = master.get(), .events = POLLIN, .revents = 0};
        char block[4096];
        while (poll(&entry, 1, 0) > 0) {
            const ssize_t count = read(master.get(), block, sizeof(block));
            if (count <= 0) {
                break;
            }
            output.append(block, static_cast<size_t>(count));
        }
        return true;
    }

    pid_t child = -1;
    std::optional<int> status;
    termios before{};
    android::base::unique_fd master;
    android::base::unique_fd slave;  // keeps the terminal's modes for us to see
};

class TopTest : public testing::Test {
  protected:
    std::vector<std::string> top(const std::vector<std::string>& options) const {
        std::vector<std::string> arguments = {TESUBPF_PATH, "top", "--socket", name};
        arguments.insert(arguments.end(), options.begin(), options.end());
        return arguments;
    }

    const std::string name = TestService::uniqueSocketName();
    std::unique_ptr<TestService> service = std::make_unique<TestService>(name);
};

TEST_F(TopTest, GivesTheTerminalBackHoweverItEnds) {
    const std::vector<std::pair<std::string, int>> ends = {
        {"q", 0}, {"\x03", 0}, {"", SIGTERM}, {"", SIGHUP}};
    for (const auto& [keys, signal] : ends) {
        TerminalProgram program(top({}));
        ASSERT_TRUE(program.waitForNew("live"));
        EXPECT_FALSE(program.hasTerminalModesOfBefore());
        EXPECT_THAT(program.output, HasSubstr(ENTER_SCREEN));
        if (signal != 0) {
            program.send(signal);
        } else {
            program.press(keys);
        }
        EXPECT_EQ(program.waitForExit(), 0);
        EXPECT_TRUE(program.hasTerminalModesOfBefore());
        const size_t left = program.output.rfind(LEAVE_SCREEN);
        ASSERT_NE(left, std::string::npos);
        EXPECT_GT(left, program.output.rfind(ENTER_SCREEN));
        EXPECT_NE(program.output.rfind(SHOW_CURSOR), std::string::npos);
    }
}

TEST_F(TopTest, StopsAndGoesOnWithTheTerminalGivenBackMeanwhile) {
    TerminalProgram program(top({}));
    ASSERT_TRUE(program.waitForNew("live"));
    program.press("\x1a");
    ASSERT_TRUE(program.waitForNew(LEAVE_SCREEN));
    EXPECT_TRUE(WaitUntil([&] { return program.hasTerminalModesOfBefore(); }));
    program.send(SIGCONT);
    ASSERT_TRUE(program.waitForNew("live"));
    EXPECT_FALSE(program.hasTerminalModesOfBefore());
    program.press("q");
    EXPECT_EQ(program.waitForExit(), 0);
}

TEST_F(TopTest, ShowsEventsFiltersAndSurvivesEverySize) {
    TerminalProgram program(top({"--filter", "ghost"}));
    ASSERT_TRUE(program.waitForNew("live"));
    ASSERT_TRUE(service->waitForSubscriptions(TOP_SUBSCRIPTIONS));
    service->sendEvent(GhostForked());
    EXPECT_TRUE(program.waitForNew("ghost-proc"));
    service->sendEvent(GhostGrown());
    EXPECT_TRUE(program.waitForNew("20.0 MiB"));
    for (const auto& [width, height] :
         {std::pair<unsigned short, unsigned short>{1, 1}, {3, 200}, {300, 2}, {0, 0}, {200, 60}}) {
        program.resize(width, height);
        usleep(50'000);
    }
    // The widest has a column that the first had not.
    EXPECT_TRUE(program.waitForNew("SHMEM"));
    program.press("/\x7f\x7f\x7f\x7f\x7fnobody\n");
    EXPECT_TRUE(program.waitForNew("nobody"));
    program.press("?");
    EXPECT_TRUE(program.waitForNew("any key"));
    program.press("xq");
    EXPECT_EQ(program.waitForExit(), 0);
}

TEST_F(TopTest, ReadsProcAgainWhenTheServiceHasGoneAndReturned) {
    TerminalProgram program(top({}));
    ASSERT_TRUE(program.waitForNew("live"));
    service.reset();
    ASSERT_TRUE(program.waitForNew("connection lost"));
    // Nobody tells of this one.
    const ChildProcess sleeper({"/bin/sleep", "60"});
    program.press("/" + std::to_string(sleeper.pid()) + "\n");
    ASSERT_TRUE(program.waitForNew("filter"));
    service = std::make_unique<TestService>(name);
    EXPECT_TRUE(program.waitForNew("sleep"));
    EXPECT_TRUE(service->waitForSubscriptions(TOP_SUBSCRIPTIONS));
}

TEST_F(TopTest, ABatchRunPrintsOneTableWithoutATerminal) {
    ChildProcess client(top({"--batch", "--seconds", "1.5", "--sort", "pid"}));
    ASSERT_TRUE(service->waitForSubscriptions(TOP_SUBSCRIPTIONS));
    service->sendEvent(GhostForked());
    service->sendEvent(GhostGrown());
    EXPECT_EQ(client.waitForExit(), 0);
    EXPECT_THAT(client.output, HasSubstr("\n4194304 ghost-proc        20.0 MiB"));
    // This process was there already.
    EXPECT_THAT(client.output, HasSubstr(" " + std::to_string(getpid()) + " "));
    EXPECT_THAT(client.output, Not(HasSubstr("\x1b")));
}

TEST_F(TopTest, RefusesWhatItCannotShow) {
    ChildProcess piped(top({}));
    EXPECT_EQ(piped.waitForExit(), 3);
    EXPECT_THAT(piped.error, HasSubstr("--batch"));
    ChildProcess unsorted(top({"--sort", "colour"}));
    EXPECT_EQ(unsorted.waitForExit(), 2);
    service.reset();
    ChildProcess unserved(top({"--batch", "--seconds", "0.3"}));
    EXPECT_EQ(unserved.waitForExit(), 1);
    EXPECT_THAT(unserved.output, HasSubstr("no daemon"));
    TerminalProgram unknown(top({}), "no-such-terminal");
    EXPECT_EQ(unknown.waitForExit(), 3);
    EXPECT_TRUE(unknown.hasTerminalModesOfBefore());
}

}  // namespace
}  // namespace Tesu::Bpf
