// SPDX-License-Identifier: Apache-2.0
//
// A dump, asked of daemons of every kind.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <utility>
#include <vector>

#include "client/dump/dump_request.h"
#include "tests/support/child_process.h"
#include "tests/support/temp_dir.h"

namespace Tesu::Bpf {
namespace {

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

}  // namespace
}  // namespace Tesu::Bpf
