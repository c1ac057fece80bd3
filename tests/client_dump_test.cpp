// SPDX-License-Identifier: Apache-2.0
//
// A dump, asked of daemons of every kind.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <string>

#include "client/dump/dump_request.h"
#include "tests/support/child_process.h"
#include "tests/support/temp_dir.h"

namespace Tesu::Bpf {
namespace {

// Runs a script that ends with the object. Not emulated, so that it has this machine's signals.
class ShellDaemon {
  public:
    explicit ShellDaemon(const std::string& script) : pid(fork()) {
        if (pid == 0) {
            execl("/bin/sh", "sh", "-c", script.c_str(), nullptr);
            _exit(127);
        }
    }
    ~ShellDaemon() {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
    const pid_t pid;
};

TEST(DumpRequest, TakesTheNewFileOfItsKindAndNothingElse) {
    if (!EmulatorCommand().empty()) {
        GTEST_SKIP() << "the emulator numbers real-time signals in its own way";
    }
    // dump COUNT COLUMN NAME: puts a dump of one row in place.
    const std::string functions =
        R"(dump() { printf "== TASKS (count: $1, time: 1)\ncomm $2\n$3 KB 1\n" >b; mv b DUMPTASK_INFO; })";
    const struct {
        std::string onSignal;
        const char* answer;
    } cases[] = {
        {"dump 1 mmId mine", "mine"},
        {"sleep 0.5; dump 1 mmId mine", "mine"},
        // Somebody else's with all columns, or without kernel tasks, in place of ours, which has to
        // be asked for again.
        {"trap \"dump 1 mmId mine\" 53; dump 1 oldThreadNum", "mine"},
        {"trap \"dump 1 mmId mine\" 53; dump 2 mmId", "mine"},
        {":", "wrote no whole"},
        {"printf \"== TASKS (count: 1\" >b; exit", "has ended"},
        {"kill -TERM $PPID", "nothing"},
    };
    const TerminationSignals signals;
    for (const auto& [onSignal, answer] : cases) {
        const TempDir folder;
        std::string script = "cd " + folder.path() + "; ";
        script.append(functions).append("; dump 1 mmId old; trap '").append(onSignal);
        const ShellDaemon daemon(script += "' 53; >ready; while :; do sleep 0.02; done");
        ASSERT_TRUE(WaitUntil([&] { return access(folder.path("ready").c_str(), F_OK) == 0; }));
        const auto text = RequestDump(daemon.pid, DUMP_SIGNAL_NORMAL, folder.path(), signals);
        EXPECT_THAT(text ? text->value_or("nothing") : text.error(), testing::HasSubstr(answer))
            << onSignal;
    }
}

TEST(DumpRequest, SendsNoSignalThatWouldEndTheDaemon) {
    const ShellDaemon daemon("exec sleep 1000");
    const auto text = RequestDump(daemon.pid, DUMP_SIGNAL_TASKS, "/nowhere", TerminationSignals());
    EXPECT_THAT(text.error(), testing::HasSubstr("not ready"));
    EXPECT_EQ(waitpid(daemon.pid, nullptr, WNOHANG), 0);
}

TEST(DumpCommands, FailWithoutADaemon) {
    for (const char* const command : {"tasks", "counters"}) {
        ChildProcess client({TESUBPF_PATH, command, "--socket", "/tesubpf/test/nobody"});
        EXPECT_EQ(client.waitForExit(), 1);
        EXPECT_EQ(client.error, "tesubpf: no daemon is listening on @/tesubpf/test/nobody\n");
    }
}

}  // namespace
}  // namespace Tesu::Bpf
