// SPDX-License-Identifier: Apache-2.0
//
// A dump: written to a file, and asked of daemons of every kind.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "client/dump/dump_request.h"
#include "tests/support/child_process.h"
#include "tests/support/temp_dir.h"
#include "util/dump_file.h"

namespace Tesu::Bpf {
namespace {

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
