// SPDX-License-Identifier: Apache-2.0
//
// `tesubpf top` as a user runs it: on a pseudo-terminal, against a service of the test's own.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <optional>
#include <string>
#include <vector>

#include "tests/support/child_process.h"
#include "tests/support/fake_service.h"
#include "tests/support/records.h"
#include "tests/support/wait_until.h"
#include "util/monotonic_clock.h"

namespace Tesu::Bpf {
namespace {

using testing::HasSubstr;
using testing::Not;

// What xterm's description begins and ends a full-screen program with.
constexpr const char* ENTER_SCREEN = "\x1b[?1049h";
constexpr const char* LEAVE_SCREEN = "\x1b[?1049l";
constexpr const char* HIDE_CURSOR = "\x1b[?25l";
constexpr const char* SHOW_CURSOR = "\x1b[?25h";

constexpr size_t TOP_SUBSCRIPTIONS = 5;
// No machine has a process of this number.
constexpr int32_t GHOST_PID = 4194304;

class TopTest : public testing::Test {
  protected:
    std::vector<std::string> top(const std::vector<std::string>& options) const {
        std::vector<std::string> arguments = {TESUBPF_PATH, "top", "--socket", name};
        arguments.insert(arguments.end(), options.begin(), options.end());
        return arguments;
    }

    const std::string name = FakeService::uniqueName();
    std::optional<FakeService> service{name};
};

TEST_F(TopTest, GivesTheTerminalBackHoweverItEndsAndWhileItIsStopped) {
    const std::vector<std::pair<std::string, int>> ends = {
        {"q", 0}, {"\x03", 0}, {"", SIGTERM}, {"", SIGHUP}};
    for (const auto& [keys, signal] : ends) {
        ChildProcess program(top({}), Terminal{});
        service->acceptClient(TOP_SUBSCRIPTIONS);
        ASSERT_TRUE(program.waitForNewOutput("live"));
        EXPECT_FALSE(program.hasTerminalModesOfBefore());
        program.type("\x1a");
        // It lets go of the terminal first.
        ASSERT_TRUE(WaitUntil([&] {
            siginfo_t info{};
            waitid(P_PID, static_cast<id_t>(program.pid()), &info, WSTOPPED | WNOHANG);
            return info.si_pid == program.pid();
        }));
        EXPECT_TRUE(program.hasTerminalModesOfBefore());
        program.sendSignal(SIGCONT);
        ASSERT_TRUE(program.waitForNewOutput("live"));
        EXPECT_FALSE(program.hasTerminalModesOfBefore());
        program.sendSignal(signal);
        program.type(keys);
        EXPECT_EQ(program.waitForExit(), 0);
        EXPECT_TRUE(program.hasTerminalModesOfBefore());
        EXPECT_GT(program.output.rfind(LEAVE_SCREEN), program.output.rfind(ENTER_SCREEN));
        EXPECT_GT(program.output.rfind(SHOW_CURSOR), program.output.rfind(HIDE_CURSOR));
    }
}

TEST_F(TopTest, ShowsEventsFiltersAndSurvivesEverySize) {
    ChildProcess program(top({"--filter", "ghost"}), Terminal{});
    service->acceptClient(TOP_SUBSCRIPTIONS);
    // Later than anything that is read of /proc, which has none such.
    const int64_t later = MonotonicNanoseconds() + 3600 * NANOSECONDS_PER_SECOND;
    service->sendEvent(Bytes(Create(later, 1, GHOST_PID, "ghost-proc")));
    EXPECT_TRUE(program.waitForOutput("ghost-proc"));
    service->sendEvent(Bytes(Rss(later + 1, GHOST_PID, RSS_ANON, 20 << 20)));
    EXPECT_TRUE(program.waitForNewOutput("20.0 MiB"));
    for (const auto& [width, height] :
         {std::pair<unsigned short, unsigned short>{1, 1}, {3, 200}, {300, 2}, {0, 0}, {200, 60}}) {
        program.resize(width, height);
        usleep(50'000);
    }
    // The widest has a column that the first had not.
    EXPECT_TRUE(program.waitForOutput("SHMEM"));
    program.type("/\x7f\x7f\x7f\x7f\x7fnobody\n");
    EXPECT_TRUE(program.waitForNewOutput("nobody"));
    program.type("?");
    EXPECT_TRUE(program.waitForNewOutput("any key"));
    program.type("xq");
    EXPECT_EQ(program.waitForExit(), 0);
}

TEST_F(TopTest, ReadsProcAgainWhenTheServiceHasGoneAndReturned) {
    ChildProcess program(top({}), Terminal{});
    service->acceptClient(TOP_SUBSCRIPTIONS);
    ASSERT_TRUE(program.waitForOutput("live"));
    service.reset();
    ASSERT_TRUE(program.waitForOutput("connection lost"));
    // No event reports this one.
    const ChildProcess sleeper({"/bin/sleep", "600"});
    program.type("/" + std::to_string(sleeper.pid()) + "\n");
    ASSERT_TRUE(program.waitForNewOutput("filter"));
    service.emplace(name);
    service->acceptClient(TOP_SUBSCRIPTIONS, {RAW_EVENT_RSS_STAT});
    EXPECT_TRUE(program.waitForNewOutput("sleep"));
    EXPECT_TRUE(program.waitForOutput("refuses"));
}

TEST_F(TopTest, PrintsOneTableWithoutATerminalAndRefusesWhatItCannotShow) {
    ChildProcess batch(top({"--batch", "--seconds", "600", "--sort", "pid"}));
    service->acceptClient(TOP_SUBSCRIPTIONS);
    batch.sendSignal(SIGTERM);
    EXPECT_EQ(batch.waitForExit(), 0);
    EXPECT_THAT(batch.output, HasSubstr(" " + std::to_string(getpid()) + " "));
    EXPECT_THAT(batch.output, Not(HasSubstr("\x1b")));
    service.reset();
    ChildProcess unserved(top({"--batch", "--seconds", "0.3"}));
    EXPECT_EQ(unserved.waitForExit(), 1);
    EXPECT_THAT(unserved.output, HasSubstr("no daemon"));
    ChildProcess piped(top({}));
    EXPECT_EQ(piped.waitForExit(), 3);
    EXPECT_THAT(piped.error, HasSubstr("--batch"));
    ChildProcess unknown(top({}), Terminal{.kind = "no-such-terminal"});
    EXPECT_EQ(unknown.waitForExit(), 3);
    EXPECT_TRUE(unknown.hasTerminalModesOfBefore());
    EXPECT_EQ(ChildProcess(top({"--sort", "colour"})).waitForExit(), 2);
}

}  // namespace
}  // namespace Tesu::Bpf
