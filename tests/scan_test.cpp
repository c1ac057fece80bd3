// SPDX-License-Identifier: Apache-2.0
//
// One odd tree in the place of /proc, and all that read it; and when the service looks at the real
// one again.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "proc/process_snapshot.h"
#include "service/tesu_bpf_service.h"
#include "task/map_seeding.h"
#include "task/task_scan.h"
#include "task/tesu_bpf_task_manager.h"
#include "tests/support/records.h"
#include "tests/support/temp_dir.h"
#include "util/time_util.h"

namespace Tesu::Bpf {
namespace {

using testing::UnorderedElementsAre;

std::string Stat(const std::string& start) {
    return start + " 7 1 1 0 -1 64 1 2 3 4 5 6 7 8 20 0 17 0 1230000 1 2\n";
}

std::string Line(const auto&... values) {
    std::ostringstream line;
    ((line << values << " "), ...);
    return line.str();
}

TEST(ScanTest, ReadersOfAnOddTree) {
    std::string maps;  // longer than one read
    while (maps.size() < 300000) {
        maps += "5581-5582 r--p 00000000 fe:00 99 /bin/dmabuf user\n";
    }
    const std::string status =
        "\nName:\tPPid:\t9\nPPid:\t7\nUid:\t1000\t1001\nRssAnon:\t  20 kB\nRssFile:\t  30 kB\n"
        "RssShmem:\t  40 kB\nVmSwap:\t  12 kB";
    const std::string zombie = "Name:\tname of sixteen!\nState:\tZ (zombie)\nThreads:\t";
    const std::pair<const char*, std::string> files[] = {
        {"10/status", status},
        {"10/stat", Stat("10 (a) (b) S")},
        {"10/fd/0", ""},
        {"10/fd/255", ""},
        {"10/fd/.hidden", ""},
        {"10/maps", maps + "1000-2000 rw-s 0 00:0a 1 /dmabuf:\n1-2-3 rw-s 0 00:0a 2 /dmabuf\n"
                           "4000-7000 rw-s 0 00:0a 18446744073709551615   /dmabuf:gpu"},
        {"11/status", "Name:\tshort\nVmSwap:\t9223372036854775807 kB\n"},
        {"11/stat", "11 (short) S 1\n"},
        {"11/fd/7", ""},
        {"11/maps", "0-9 rw-s 0 00:0a 3 /dmabuf:\n9-0 rw-s 0 00:0a 3 /dmabuf:\n"},
        {"12/status", zombie + "1\n"},
        {"12/stat", Stat("12 (zombie) Z")},
        {"13/status", zombie + "2\n"},  // other threads live
        {"13/stat", Stat("13 (first) Z")},
        {"14/status", ""},
        {"14/stat", Stat("14 (empty) S")},
        {"15/fd/0", ""},
        {"16/status/opens", "but cannot be read"},
        {"17/status", status},
        {"18a/status", status},
    };
    const TempDir proc;
    for (const auto& [name, text] : files) {
        proc.write(name, text);
    }
    std::vector<std::string> lines;
    EXPECT_EQ(
        ScanTasks(proc.path(),
                  [&](const RawTesuTaskInitEvent& task) {
                      lines.push_back(Line(task.pid, task.comm, task.ppid, task.uid, task.threadNum,
                                           task.startTime, task.rssFileSize, task.rssAnonSize,
                                           task.rssShmemSize, task.rssSwapSize));
                      return true;
                  }),
        4);
    EXPECT_THAT(lines, UnorderedElementsAre("10 PPid:\t9 7 1000 0 0 30720 20480 40960 12288 ",
                                            "11 short 0 0 0 0 0 0 0 -1024 ",
                                            "13 name of sixteen 0 0 17 12300 0 0 0 0 ",
                                            "14  0 0 17 12300 0 0 0 0 "));
    lines.clear();
    const auto all = [] { return true; };
    ScanOpenFds(proc.path(), all, [&](const OpenFdCaller& caller) {
        lines.push_back(Line(caller.pid, caller.comm, caller.openFds));
    });
    EXPECT_THAT(lines, UnorderedElementsAre("10 PPid:\t9 2 ", "11 short 1 "));
    lines.clear();
    const auto takeMapping = [&](uint64_t inode, const DmabufAllocation& allocation) {
        lines.push_back(Line(allocation.pid, inode, allocation.size));
    };
    const auto takeTotal = [&](int32_t pid, int64_t total) { lines.push_back(Line(pid, total)); };
    ScanDmabufs(proc.path(), all, {takeMapping, takeTotal});
    EXPECT_THAT(lines, UnorderedElementsAre("10 1 4096 ", "10 18446744073709551615 12288 ",
                                            "10 16384 ", "11 3 9 ", "11 3 -9 "));
    lines.clear();
    std::vector<ProcessSnapshot> processes;
    EXPECT_TRUE(ProcReader(proc.path()).readAll(&processes));
    for (const ProcessSnapshot& process : processes) {
        lines.push_back(Line(process.pid, process.name, process.ppid, process.uid, process.threads,
                             process.openFds.value_or(-1), process.isEnding, process.memory[1],
                             process.memory[2]));
    }
    EXPECT_THAT(lines, UnorderedElementsAre(
                           "10 a) (b 7 1000 17 2 0 20480 12288 ", "12 zombie 7 0 17 -1 1 0 0 ",
                           "13 first 7 0 17 -1 1 0 0 ", "14 empty 7 -1 17 -1 0 0 0 "));
}

TEST(ScanTest, SomeNamesAreReadAgain) {
    constexpr int32_t NOBODY = 0x7ffffffe;  // no process ever has this id
    const int32_t self = getpid();
    const auto feed = [](auto record) {
        TesuBpfService::handleBpfRingBuffEvent(nullptr, &record, sizeof(record));
    };
    prctl(PR_SET_NAME, "renamed");
    feed(Create(0, 0, self, "no parent"));
    feed(Create(0, 0, NOBODY, "main"));
    TesuTaskManager* const table = TesuTaskManager::GetInstance();
    TesuTask& task = *table->GetTesuTask(self);
    TesuTask& gone = *table->GetTesuTask(NOBODY);
    EXPECT_STREQ(task.comm, "renamed");
    EXPECT_EQ(task.ppid, getppid());

    const auto now = static_cast<int64_t>(GetSystemSecondsTime());
    const struct {
        const char* name;
        int64_t lastTime;
        bool isRead;
    } rows[] = {{"main", now - 1000, true},
                {"main", now + 1000, false},
                {"main", now - 3, true},
                {"re-initialized>", 0, true},
                {"mainly", 0, false}};
    for (const auto& row : rows) {
        SetName(task.comm, row.name);
        task.ppid = -1;
        task.lastRefreshTime = row.lastTime;
        feed(Rss(0, self, 0, 1));
        EXPECT_STREQ(task.comm, row.isRead ? "renamed" : row.name);
        EXPECT_EQ(task.ppid, row.isRead ? getppid() : -1);
        EXPECT_EQ(task.lastRefreshTime >= now && task.lastRefreshTime < now + 1000, row.isRead);
    }
    feed(Rss(0, NOBODY, 0, 1));
    EXPECT_STREQ(gone.comm, "main");
    EXPECT_GE(gone.lastRefreshTime, now) << "a failure waits too";
}

}  // namespace
}  // namespace Tesu::Bpf
