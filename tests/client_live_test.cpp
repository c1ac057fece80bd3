// SPDX-License-Identifier: Apache-2.0
//
// `tesubpf watch` and `tesubpf top` as a user runs them, the latter on a pseudo-terminal: at a
// service that does what services do and what they should not, and with a recording.
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

constexpr size_t TOP_SUBSCRIPTIONS = 6;

std::string ExitOf(int32_t pid) {
    return Bytes(Exit(0, pid, "name"));
}

class ClientLiveTest : public testing::Test {
  protected:
    const std::string name = FakeService::uniqueName();
    const std::vector<std::string> watch = {TESUBPF_PATH, "watch",  "--socket",
                                            name,         "--type", "exit"};
    const std::vector<std::string> top = {TESUBPF_PATH, "top",      "--socket",
                                          name,         "--filter", "ghost"};
    std::optional<FakeService> service{std::in_place, name};
};
using WatchTest = ClientLiveTest;
using TopTest = ClientLiveTest;

TEST_F(WatchTest, ConnectsAgainWhateverBecameOfTheConnection) {
    ChildProcess client(watch);
    service->acceptClient(1);
    service->sendEvent(ExitOf(101));
    service->sendBytes(WireClient::word(7));  // no frame is as short
    EXPECT_TRUE(client.waitForError("does not speak the protocol"));
    EXPECT_NE(client.output.find("101"), std::string::npos);
    service.reset();
    EXPECT_TRUE(client.waitForError("no daemon is listening on @" + name));
    service.emplace(name);
    service->acceptClient(1);
    service->sendEvent(ExitOf(103));
    EXPECT_TRUE(client.waitForOutput("103"));
}

TEST_F(WatchTest, EndsWithTheReaderOfItsOutput) {
    ChildProcess client(watch);
    service->acceptClient(1);
    EXPECT_TRUE(client.waitForError("connected"));
    client.closeOutput();  // no event is needed for it
    EXPECT_EQ(client.waitForExit(), 0);
}

TEST_F(TopTest, GivesTheTerminalBackHoweverItEndsAndWhileItIsStopped) {
    for (const bool isKilled : {false, true}) {
        ChildProcess program(top, true);
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
        program.sendSignal(isKilled ? SIGTERM : 0);
        program.type(isKilled ? "" : "q");
        EXPECT_EQ(program.waitForExit(), 0);
        EXPECT_TRUE(program.hasTerminalModesOfBefore());
        // The alternate screen of xterm's description.
        EXPECT_GT(program.output.rfind("\x1b[?1049l"), program.output.rfind("\x1b[?1049h"));
    }
}

TEST_F(TopTest, ShowsEventsAndSurvivesEverySize) {
    ChildProcess program(top, true);
    service->acceptClient(TOP_SUBSCRIPTIONS);
    // Later than anything that is read of /proc, which has no process of such a number.
    const int64_t later = MonotonicNanoseconds() + 3600 * NANOSECONDS_PER_SECOND;
    service->sendEvent(Bytes(Create(later, 1, 4194304, "ghost-proc")));
    EXPECT_TRUE(program.waitForOutput("ghost-proc"));
    service->sendEvent(Bytes(Rss(later + 1, 4194304, RSS_ANON, 20 << 20)));
    EXPECT_TRUE(program.waitForNewOutput("20.0 MiB"));
    for (const auto& [width, height] :
         {std::pair<unsigned short, unsigned short>{1, 1}, {300, 2}, {0, 0}, {200, 60}}) {
        program.resize(width, height);
        usleep(50'000);
    }
    // The widest has a column that the first had not.
    EXPECT_TRUE(program.waitForOutput("SHMEM"));
    program.type("q");
    EXPECT_EQ(program.waitForExit(), 0);
}

TEST(TopReplayTest, StandsStillAndGoesToAnyMoment) {
    ChildProcess program({TESUBPF_PATH, "top", "--from", TESUBPF_TEST_RECORDING}, true);
    ASSERT_TRUE(program.waitForOutput("recording"));
    program.type(" ");
    EXPECT_TRUE(program.waitForNewOutput("PAUSED"));
    program.type("t+1:0x\r");
    EXPECT_TRUE(program.waitForNewOutput("is no time"));
    // The loop of crashes has begun then; only what differs on the screen is sent.
    program.type("t+1:00\r");
    EXPECT_TRUE(program.waitForNewOutput("updaterd"));
    for (int i = 0; i < 6; ++i) {
        program.type("\x1bOD");
    }
    EXPECT_TRUE(program.waitForNewOutput("none"));
    program.type("q");
    EXPECT_EQ(program.waitForExit(), 0);
}

}  // namespace
}  // namespace Tesu::Bpf
