// SPDX-License-Identifier: Apache-2.0
//
// The table of tasks: where its records lie while processes come and go by the thousand; one odd
// tree in the place of /proc, and all that read it; and when the service looks at the real one
// again.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "proc/process_snapshot.h"
#include "service/tesu_bpf_service.h"
#include "task/map_seeding.h"
#include "task/table_mending.h"
#include "task/task_scan.h"
#include "task/task_store.h"
#include "task/tesu_bpf_task_manager.h"
#include "tests/support/records.h"
#include "tests/support/temp_dir.h"
#include "util/monotonic_clock.h"
#include "util/string_util.h"
#include "util/time_util.h"

namespace Tesu::Bpf {
namespace {

TEST(TaskStoreTest, ARecordIsFoundWhereItWasPutAndItsRoomIsUsedAgain) {
    std::mt19937 random(1);
    std::vector<int32_t> pids(4000);
    std::generate(pids.begin(), pids.end(), [&] { return static_cast<int32_t>(random()); });
    TaskStore store;
    std::map<int32_t, TesuTask*> records;
    std::set<TesuTask*> places;
    size_t most = 0;
    for (uint32_t step = 1; step <= 40000; ++step) {
        const int32_t pid = pids[random() % pids.size()];
        if (random() % 2 == 0) {
            ASSERT_EQ(store.erase(pid), records.erase(pid) != 0);
        } else {
            TesuTask task;
            task.pid = pid;
            task.mmId = step;
            store.put(pid, task);
            TesuTask* const place = store.find(pid);
            ASSERT_EQ(records.try_emplace(pid, place).first->second, place);
            ASSERT_EQ(place->mmId, step);
            places.insert(place);
            most = std::max(most, records.size());
        }
        ASSERT_EQ(store.size(), records.size());
        for (int look = 0; look < 10; ++look) {
            const int32_t other = pids[random() % pids.size()];
            const auto record = records.find(other);
            ASSERT_EQ(store.find(other), record == records.end() ? nullptr : record->second);
            ASSERT_TRUE(record == records.end() || record->second->pid == other);
        }
    }
    EXPECT_EQ(places.size(), most);
}

std::string Stat(const std::string& start, int flags = 64, int threads = 17,
                 long long ticks = 1230000) {
    return start + StringPrintf(" 7 1 1 0 -1 %d 1 2 3 4 5 6 7 8 20 0 %d 0 %lld 1 2\n", flags,
                                threads, ticks);
}

TEST(ScanTest, ReadersOfAnOddTree) {
    std::string maps(300000, '\n');  // longer than one read
    maps +=
        "5581-5582 r--p 00000000 fe:00 99 /bin/dmabuf user\n1-2-3 rw-s 0 00:0a 2 /dmabuf\n"
        "4000-7000 rw-s 0 00:0a 18446744073709551615   /dmabuf:gpu";
    const std::string status =
        "\nName:\tPPid:\t9\nPPid:\t7\nUid:\t1000\t1001\nRssAnon:\t  20 kB\nRssFile:\t  30 kB\n"
        "RssShmem:\t  40 kB\nVmSwap:\t  12 kB";
    const std::string zombie = "Name:\tname of sixteen!\nState:\tZ (zombie)\nThreads:\t";
    const TempDir proc;
    for (const std::vector<std::string>& process :
         {std::vector<std::string>{"10", status, Stat("10 (a) (b) S"), maps, "0", "9"},
          {"11", "Name:\tshort\nVmSwap:\t9223372036854775807 kB\n", "11 (short) S 1\n",
           "0-9 rw-s 0 00:0a 3 /dmabuf:\n9-0 rw-s 0 00:0a 3 /dmabuf:\n", "7", ".hidden"},
          {"12", zombie + "1\n", Stat("12 (zombie) Z"), ""},
          {"13", zombie + "2\n", Stat("13 (first) Z"), ""},  // its other thread lives
          {"15a", status, Stat("15 (nobody) S"), ""}}) {
        for (size_t i = 1; i < process.size(); ++i) {
            const std::string files[] = {"", "/status", "/stat", "/maps"};
            proc.write(process[0] + (i < 4 ? files[i] : "/fd/" + process[i]), process[i]);
        }
    }
    std::filesystem::create_directories(proc.path("17/status"));  // opens, but cannot be read
    std::vector<std::string> lines;
    const auto add = [&](const auto&... values) {
        std::ostringstream line;
        ((line << values << " "), ...);
        lines.push_back(line.str());
    };
    const auto all = [] { return true; };
    const int count = ScanTasks(proc.path(), all, [&](const RawTesuTaskInitEvent& task) {
        add("task", task.pid, task.comm, task.ppid, task.uid, task.threadNum, task.startTime,
            task.rssFileSize, task.rssAnonSize, task.rssShmemSize, task.rssSwapSize);
    });
    EXPECT_EQ(count, 3);
    ScanOpenFds(proc.path(), all, [&](const OpenFdCaller& caller) {
        add("fds", caller.pid, caller.comm, caller.openFds);
    });
    const auto addMapping = [&](uint64_t inode, const DmabufAllocation& allocation) {
        add("mapping", allocation.pid, inode, allocation.size);
    };
    ScanDmabufs(proc.path(), all, addMapping, [&](int pid, int64_t sum) { add(pid, sum); });
    std::vector<ProcessSnapshot> processes;
    EXPECT_TRUE(ProcReader(proc.path()).readAll(&processes));
    for (const ProcessSnapshot& process : processes) {
        add("top", process.pid, process.name, process.ppid, process.uid, process.threads,
            process.openFds.value_or(-1), process.isEnding, process.memory[RSS_SWAP]);
    }
    EXPECT_THAT(
        lines,
        testing::UnorderedElementsAre(
            "task 10 PPid:\t9 7 1000 0 0 30720 20480 40960 12288 ",
            "task 11 short 0 0 0 0 0 0 0 -1024 ", "task 13 name of sixteen 0 0 17 12300 0 0 0 0 ",
            "fds 10 PPid:\t9 2 ", "fds 11 short 1 ", "mapping 10 18446744073709551615 12288 ",
            "10 12288 ", "mapping 11 3 9 ", "mapping 11 3 -9 ", "top 10 a) (b 7 1000 17 2 0 12288 ",
            "top 12 zombie 7 0 17 -1 1 0 ", "top 13 first 7 0 17 -1 1 0 "));
}

TEST(ScanTest, SomeNamesAreReadAgain) {
    const int32_t self = getpid();
    const auto feed = [](auto record) {
        TesuBpfService::handleBpfRingBuffEvent(nullptr, &record, sizeof(record));
    };
    prctl(PR_SET_NAME, "renamed");
    feed(Create(0, 0, self, "no parent"));
    TesuTask& task = *TesuTaskManager::GetInstance()->GetTesuTask(self);
    EXPECT_STREQ(task.comm, "renamed");
    const auto now = static_cast<int64_t>(GetSystemSecondsTime());
    for (const auto& [name, lastTime, isRead] : {std::tuple("main", now - 3, true),
                                                 {"main", now + 1000, false},
                                                 {"re-initialized>", int64_t{0}, true},
                                                 {"mainly", int64_t{0}, false}}) {
        SetName(task.comm, name);
        task.lastRefreshTime = lastTime;
        feed(Rss(0, self, 0, 1));
        EXPECT_STREQ(task.comm, isRead ? "renamed" : name);
        EXPECT_EQ(task.lastRefreshTime >= now && task.lastRefreshTime < now + 1000, isRead);
    }
}

TEST(ScanTest, TheTableIsMendedByWhatIsStillSo) {
    // No kernel gives ids as high.
    enum : int32_t {
        LOST = 5000000,
        YOUNG,
        PENDING,
        REPLACED,
        GONE,
        CAME,
        CHANGED,
        LEFT,
        ENDS,
        AGAIN,
        SAME
    };
    const TempDir proc;
    const auto write = [&proc](int32_t pid, int64_t start, int flags = 0) {
        const std::string name = std::to_string(pid);
        proc.write(name + "/status", "Name:\tname\n");
        proc.write(name + "/stat",
                   Stat(name + " (name) S", flags, 1, start * sysconf(_SC_CLK_TCK)));
    };
    TesuTaskManager* const table = TesuTaskManager::GetInstance();
    const auto put = [table](int32_t pid, int64_t createTime) {
        MutexLock lock(TesuTaskManager::tesuTaskManagerLock);
        TesuTask task;
        task.createEventTime = createTime;
        task.initTimeStamp = GetBasetime() + 1;
        table->AddTesuTask(pid, task);
    };
    for (const int32_t pid : {LOST, PENDING, CAME, ENDS, AGAIN}) {
        write(pid, 1);
    }
    write(YOUNG, ClockNanoseconds(CLOCK_BOOTTIME) / NANOSECONDS_PER_SECOND);
    for (const int32_t pid : {REPLACED, CHANGED}) {
        put(pid, 1);
        write(pid, 4);
    }
    put(SAME, 1);  // but for rounding
    write(SAME, 3);
    put(GONE, 1);
    put(LEFT, 1);
    TableMending mending(
        CompareTableWithProc(table,
                             {.procRoot = proc.path(),
                              .minAge = 10,
                              .withStarts = true,
                              .isCreatePending = [](int32_t pid) { return pid == PENDING; }},
                             [] { return true; }));
    // Meanwhile records of these are handled.
    for (const int32_t pid : {CAME, CHANGED, LEFT}) {
        put(pid, 2);
    }
    write(ENDS, 1, 4);
    write(AGAIN, 2);
    std::set<int32_t> taken;
    const auto take = [&taken](const RawTesuTaskInitEvent& record) { taken.insert(record.pid); };
    while (mending.applySome(table, proc.path(), take)) {
    }
    EXPECT_THAT(taken, testing::ElementsAre(LOST, REPLACED));
    MutexLock lock(TesuTaskManager::tesuTaskManagerLock);
    EXPECT_EQ(table->GetTesuTask(GONE), nullptr);
    EXPECT_NE(table->GetTesuTask(LEFT), nullptr);
}

}  // namespace
}  // namespace Tesu::Bpf
