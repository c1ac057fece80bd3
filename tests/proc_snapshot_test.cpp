// SPDX-License-Identifier: Apache-2.0
//
// Processes as the client reads them of /proc.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "proc/process_snapshot.h"
#include "tests/support/temp_dir.h"

namespace Tesu::Bpf {
namespace {

TEST(ProcReader, FindsWhatIsWholeWhateverItsNameAndSkipsTheRest) {
    const std::string rest = ") Z 1 7 7 0 -1 4 1 2 3 4 5 6 7 8 20 0 2 0 12345 99 88\n";
    const std::string name = "a) S 9 (b\nc";
    const TempDir proc;
    proc.write("20/stat", "20 (" + name + rest);
    proc.write("20/status", "Name:\tRssAnon:\\n1 kB\nUid:\t5\t6\t6\t6\nRssAnon:\t4 kB\n");
    proc.write("20/fd/0", "");
    proc.write("21/stat", "");              // ended since it was listed
    proc.write("22/stat", "23 (x" + rest);  // another's
    proc.write("24/status", "Uid:\t5\n");
    proc.write("25/stat", "25 (bash) S 12 7 7 0 -1 4194560 1 2 3 4 5 6 7 8 20 0 33 0 ");
    proc.write("26/stat", "26 (kthread) S 2 0 0 0 -1 2129984 1 2 3 4 5 6 7 8 20 0 1 0 5 0\n");
    proc.write("self/stat", "20 (x" + rest);
    proc.write("99999999999/stat", "1 (x" + rest);
    proc.write("stat", "cpu 1 2 3");
    std::vector<ProcessSnapshot> found;
    ASSERT_TRUE(ProcReader(proc.path()).readAll(&found));
    ASSERT_THAT(found, testing::SizeIs(2));
    const size_t first = found[0].pid == 20 ? 0 : 1;
    const ProcessSnapshot& process = found[first];
    EXPECT_EQ(process.name, name);
    EXPECT_TRUE(process.isEnding);
    EXPECT_TRUE(process.openFds.has_value());
    EXPECT_EQ(process.memory[RSS_ANON], 4096);
    EXPECT_THAT(std::vector<int>({process.ppid, process.uid, process.threads}),
                testing::ElementsAre(1, 5, 2));
    EXPECT_TRUE(found[1 - first].isKernelThread);
    EXPECT_FALSE(ProcReader(proc.path("none")).readAll(&found));
}

}  // namespace
}  // namespace Tesu::Bpf
