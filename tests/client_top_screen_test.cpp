// SPDX-License-Identifier: Apache-2.0
//
// `tesubpf top` as a user runs it: on a pseudo-terminal, against a real server.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "records/raw_event.h"
#include "tests/support/child_process.h"
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
        ChildProcess program(top({}), Terminal{});
        ASSERT_TRUE(program.waitForNewOutput("live"));
        EXPECT_FALSE(program.hasTerminalModesOfBefore());
        EXPECT_THAT(program.output, HasSubstr(ENTER_SCREEN));
        if (signal != 0) {
            program.sendSignal(signal);
        } else {
            program.type(keys);
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
    ChildProcess program(top({}), Terminal{});
    ASSERT_TRUE(program.waitForNewOutput("live"));
    program.type("\x1a");
    ASSERT_TRUE(program.waitForNewOutput(LEAVE_SCREEN));
    EXPECT_TRUE(WaitUntil([&] { return program.hasTerminalModesOfBefore(); }));
    program.sendSignal(SIGCONT);
    ASSERT_TRUE(program.waitForNewOutput("live"));
    EXPECT_FALSE(program.hasTerminalModesOfBefore());
    program.type("q");
    EXPECT_EQ(program.waitForExit(), 0);
}

TEST_F(TopTest, ShowsEventsFiltersAndSurvivesEverySize) {
    ChildProcess program(top({"--filter", "ghost"}), Terminal{});
    ASSERT_TRUE(program.waitForNewOutput("live"));
    ASSERT_TRUE(service->waitForSubscriptions(TOP_SUBSCRIPTIONS));
    service->sendEvent(GhostForked());
    EXPECT_TRUE(program.waitForNewOutput("ghost-proc"));
    service->sendEvent(GhostGrown());
    EXPECT_TRUE(program.waitForNewOutput("20.0 MiB"));
    for (const auto& [width, height] :
         {std::pair<unsigned short, unsigned short>{1, 1}, {3, 200}, {300, 2}, {0, 0}, {200, 60}}) {
        program.resize(width, height);
        usleep(50'000);
    }
    // The widest has a column that the first had not.
    EXPECT_TRUE(program.waitForNewOutput("SHMEM"));
    program.type("/\x7f\x7f\x7f\x7f\x7fnobody\n");
    EXPECT_TRUE(program.waitForNewOutput("nobody"));
    program.type("?");
    EXPECT_TRUE(program.waitForNewOutput("any key"));
    program.type("xq");
    EXPECT_EQ(program.waitForExit(), 0);
}

TEST_F(TopTest, ReadsProcAgainWhenTheServiceHasGoneAndReturned) {
    ChildProcess program(top({}), Terminal{});
    ASSERT_TRUE(program.waitForNewOutput("live"));
    service.reset();
    ASSERT_TRUE(program.waitForNewOutput("connection lost"));
    // Nobody tells of this one.
    const ChildProcess sleeper({"/bin/sleep", "60"});
    program.type("/" + std::to_string(sleeper.pid()) + "\n");
    ASSERT_TRUE(program.waitForNewOutput("filter"));
    service = std::make_unique<TestService>(name);
    EXPECT_TRUE(program.waitForNewOutput("sleep"));
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
    ChildProcess unknown(top({}), Terminal{.kind = "no-such-terminal"});
    EXPECT_EQ(unknown.waitForExit(), 3);
    EXPECT_TRUE(unknown.hasTerminalModesOfBefore());
}

}  // namespace
}  // namespace Tesu::Bpf
