// SPDX-License-Identifier: Apache-2.0
//
// A dump, asked of daemons of every kind.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <string>
#include <utility>
#include <vector>

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
    // dump COLUMN NAME: puts a dump of one row in place.
    const std::string start =
        R"(dump() { printf "== TASKS (count: 1, time: 1)\ncomm $1\n$2 KB 1\n" >b; mv b DUMPTASK_INFO; })"
        "; dump mmId old; trap '";
    const std::vector<std::pair<std::string, std::string>> answers = {
        {"dump mmId mine", "mine"},
        // Somebody else's with all columns in place of ours, which has to be asked for again.
        {"trap \"dump mmId mine\" 53; dump oldThreadNum", "mine"},
        {":", "wrote no whole"},
        {"printf \"== TASKS (count: 1\" >b; exit", "has ended"}};
    for (const auto& [onSignal, answer] : answers) {
        const TempDir folder;
        std::string script = "cd " + folder.path() + "; ";
        script.append(start).append(onSignal) += "' 53; >ready; while :; do sleep 0.02; done";
        const ShellDaemon daemon(script);
        ASSERT_TRUE(WaitUntil([&] { return access(folder.path("ready").c_str(), F_OK) == 0; }));
        const auto text =
            RequestDump(daemon.pid, DUMP_SIGNAL_NORMAL, folder.path(), TerminationSignals());
        EXPECT_THAT(text ? text->value_or("") : text.error(), testing::HasSubstr(answer));
    }
}

TEST(DumpRequest, SendsNoSignalThatWouldEndTheDaemon) {
    const ShellDaemon daemon("exec sleep 1000");
    const auto text = RequestDump(daemon.pid, DUMP_SIGNAL_TASKS, "/nowhere", TerminationSignals());
    EXPECT_THAT(text.error(), testing::HasSubstr("not ready"));
    EXPECT_EQ(waitpid(daemon.pid, nullptr, WNOHANG), 0);
}

}  // namespace
}  // namespace Tesu::Bpf
