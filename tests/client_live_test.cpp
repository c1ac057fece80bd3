// SPDX-License-Identifier: Apache-2.0
//
// `tesubpf watch` and `tesubpf top` as a user runs them, the latter on a pseudo-terminal: at a
// service that does what services do and what they should not, and with a recording. And a dump:
// written to a file, and asked of daemons of every kind.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "client/dump/dump_request.h"
#include "tests/support/child_process.h"
#include "tests/support/fake_service.h"
#include "tests/support/records.h"
#include "tests/support/temp_dir.h"
#include "tests/support/wait_until.h"
#include "util/dump_file.h"
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

TEST(DumpRequest, TakesTheNewFileOfItsKindAndNothingElse) {
    if (!EmulatorCommand().empty()) {
        GTEST_SKIP() << "the emulator numbers real-time signals in its own way";
    }
    // dump COLUMN NAME: puts a dump of one row in place.
    const std::string start =
        R"(dump() { printf "== TASKS (count: 1, time: 1)\ncomm $1\n$2 KB 1\n" >b; mv b DUMPTASK_INFO; })"
        "; dump mmId old; >DUMPTASK_INFO.new; trap '";
    const std::vector<std::pair<std::string, std::string>> answers = {
        // A daemon that was killed has left the beginning of a dump, which goes first.
        {"rm DUMPTASK_INFO.new; sleep 0.1; dump mmId mine", "mine"},
        // Somebody else's with all columns in place of ours, which has to be asked for again.
        {"trap \"dump mmId mine\" 53; dump oldThreadNum", "mine"},
        {":", "wrote no whole"},
        // Begins to write and cannot.
        {"rm DUMPTASK_INFO.new; >DUMPTASK_INFO.new; rm DUMPTASK_INFO.new", "could not write"},
        {"printf \"== TASKS (count: 1\" >b; exit", "has ended"},
        // Without a handler the signal would end it.
        {"-", "not ready"}};
    for (const auto& [onSignal, answer] : answers) {
        const TempDir folder;
        std::string script = "cd " + folder.path() + "; ";
        script.append(start).append(onSignal) += "' 53; >ready; while :; do sleep 0.02; done";
        const ChildProcess daemon({"/bin/sh", "-c", script});
        ASSERT_TRUE(WaitUntil([&] { return access(folder.path("ready").c_str(), F_OK) == 0; }));
        const auto text =
            RequestDump(daemon.pid(), DUMP_SIGNAL_NORMAL, folder.path(), TerminationSignals());
        EXPECT_THAT(text ? text->value_or("") : text.error(), testing::HasSubstr(answer));
    }
}

TEST(DumpFile, LeavesNothingOfADumpThatCannotBeWritten) {
    const TempDir folder;
    folder.write("dump", "old");
    signal(SIGXFSZ, SIG_IGN);
    const rlimit limit{.rlim_cur = 4096, .rlim_max = 4096};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
    EXPECT_TRUE(ReplaceDumpFile(folder.path("dump"), std::string(8192, 'x')));
    EXPECT_TRUE(std::filesystem::is_empty(folder.path()));
}

}  // namespace
}  // namespace Tesu::Bpf
