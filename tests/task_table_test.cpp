// SPDX-License-Identifier: Apache-2.0
//
// The task table, and the order and text of its dumps.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <limits>
#include <random>
#include <regex>
#include <string>
#include <vector>

#include "task/task_dump.h"
#include "task/tesu_bpf_task_manager.h"
#include "tests/support/temp_dir.h"

namespace Tesu::Bpf {
namespace {

using testing::ElementsAre;

constexpr int64_t KB = 1024;

TesuTask Task(int32_t pid, int64_t file = 0, int64_t anon = 0, int64_t swap = 0,
              int64_t shmem = 0) {
    TesuTask task;
    task.pid = pid;
    task.rssFileSize = file;
    task.rssAnonSize = anon;
    task.rssSwapSize = swap;
    task.rssShmemSize = shmem;
    return task;
}

std::vector<int32_t> Pids(const std::vector<TesuTask>& tasks) {
    std::vector<int32_t> pids(tasks.size());
    std::transform(tasks.begin(), tasks.end(), pids.begin(),
                   [](const TesuTask& task) { return task.pid; });
    return pids;
}

class TaskTableTest : public testing::Test {
  protected:
    TesuTaskManager* manager = TesuTaskManager::GetInstance();
};

TEST_F(TaskTableTest, RecordsAreFoundReplacedWholeAndDeleted) {
    errno = EIO;
    EXPECT_EQ(manager->GetTesuTask(7), nullptr);
    EXPECT_EQ(errno, EIO) << "getters leave errno alone";
    EXPECT_EQ(manager->GetTesuTaskCount(), 0U) << "a look made a record";

    EXPECT_EQ(manager->AddTesuTask(-7, Task(7, 1, 2)), 0) << "the key need not be the pid";
    TesuTask* stored = manager->GetTesuTask(-7);
    ASSERT_NE(stored, nullptr);
    stored->threadNum = 5;
    for (int32_t pid = 1; pid < 100; ++pid) {
        manager->AddTesuTask(pid, Task(pid));
    }
    EXPECT_EQ(manager->GetTesuTask(-7), stored) << "records stay where they are";
    manager->AddTesuTask(-7, Task(8));
    EXPECT_EQ(manager->GetTesuTaskCount(), 100U);
    EXPECT_EQ(stored->rssAnonSize + stored->threadNum, 0);

    EXPECT_EQ(manager->DelTesuTask(-7), 0);
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(manager->GetTesuTaskCount(), 99U);
    EXPECT_EQ(manager->DelTesuTask(-7), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(TaskTableTest, SideTablesByMmid) {
    manager->AddTesuTask(7, Task(7));
    TesuTask* task = manager->GetTesuTask(7);
    EXPECT_EQ(manager->GetTesuTaskByMmid(UINT32_MAX), nullptr);
    EXPECT_EQ(manager->AddMmidIndex(UINT32_MAX, task), 0);
    manager->DelTesuTask(7);
    EXPECT_EQ(manager->GetTesuTaskByMmid(UINT32_MAX), task) << "the index outlives its tasks";
    EXPECT_EQ(manager->DelMmidIndex(UINT32_MAX), 0);
    EXPECT_EQ(manager->DelMmidIndex(UINT32_MAX), -1);
    EXPECT_EQ(errno, ENOENT);

    EXPECT_EQ(manager->GetRssTempTask(3), nullptr);
    EXPECT_EQ(manager->AddRssTempTask(3, Task(30)), 0);
    manager->AddRssTempTask(3, Task(31));
    EXPECT_EQ(manager->GetRssTempTask(3)->pid, 31);
    EXPECT_EQ(manager->DelRssTempTask(3), 0);
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(manager->DelRssTempTask(3), 0) << "a miss shows in errno alone";
    EXPECT_EQ(errno, ENOENT);
}

TEST(TaskOrder, LargestTotalFirstAndStable) {
    EXPECT_TRUE(CompareTesuTask(Task(1, 100, 100, 50, 50), Task(2, 200)));
    EXPECT_FALSE(CompareTesuTask(Task(2, 10), Task(1, 1, 2, 3, 4)));
    EXPECT_FALSE(CompareTesuTask(Task(1, 1, 2, 3, 4), Task(2, 10)));
    std::vector<TesuTask> tasks = {Task(1, 5), Task(2, 0, 0, 7), Task(3, 5), Task(4, 0, -3),
                                   Task(5, 0, 0, 0, 9)};
    tasks[3].rssAnonOldSize = 1000;
    SortForDump(tasks);
    EXPECT_THAT(Pids(tasks), ElementsAre(5, 2, 1, 3, 4));
}

// Where totals wrap the comparison runs in circles, and only the sort's own bounds keep it within
// the records.
TEST(TaskOrder, CircularComparisonLosesNothing) {
    std::mt19937_64 random(1);
    for (const size_t count : {0, 1, 3, 17, 1000}) {
        std::vector<TesuTask> tasks(count);
        for (TesuTask& task : tasks) {
            task = Task(static_cast<int32_t>(&task - tasks.data()), static_cast<int64_t>(random()));
        }
        const std::vector<int32_t> expected = Pids(tasks);
        SortForDump(tasks);
        EXPECT_THAT(Pids(tasks), testing::UnorderedElementsAreArray(expected));
    }
}

class TaskDumpTest : public TaskTableTest {
  protected:
    TaskDumpTest() {
        TesuTask big = Task(-1, 4 * KB, 3 * KB + 1023, 2 * KB, KB);
        big.ppid = 2;
        big.threadNum = 3;
        big.oldThreadNum = 4;
        big.mmId = UINT32_MAX;
        std::memcpy(big.comm, "sixteen chars ab", sizeof(big.comm));
        big.rssFileOldSize = 40 * KB;
        big.rssAnonOldSize = 30 * KB;
        big.rssSwapOldSize = 20 * KB;
        big.rssShmemOldSize = 10 * KB;
        big.initTimeStamp = 1700000000;
        TesuTask small = Task(300, -KB, -KB + 1);
        std::memcpy(small.comm, "a b", 3);
        small.rssAnonOldSize = std::numeric_limits<int64_t>::max();
        small.initTimeStamp = std::numeric_limits<int64_t>::min();
        for (const TesuTask& task : {small, big, Task(2)}) {
            manager->AddTesuTask(task.pid, task);
        }
    }

    // What a dump writes below its title, which is checked here.
    std::string body(void (TesuTaskManager::*dump)()) {
        (manager->*dump)();
        const std::string text = ReadWholeFile(path);
        const size_t end = std::min(text.find('\n'), text.size());
        EXPECT_TRUE(std::regex_match(
            text.substr(0, end),
            std::regex("={12} DUMP ALL TESU TASKS INFO \\(count: 3, time: [0-9]{10}\\) ={12}")))
            << text;
        return text.substr(end);
    }

    TempDir folder;
    const std::string path = TesuTaskManager::TESUTASK_DUMP_TEMPLATE;
};

TEST_F(TaskDumpTest, VariantsDifferInKernelTasksAndOldColumns) {
    const std::string fullHeader =
        "\ncomm               pid         ppid        threadNum   oldThreadNum mmId        "
        "rssAnonSize         rssAnonOldSize      rssFileSize         rssFileOldSize      "
        "rssShmemSize        rssShmemOldSize     rssSwapSize         rssSwapOldSize      "
        "initTimeStamp       \n"
        "sixteen chars ab   -1          2           3           4            4294967295  "
        "         3 KB               30 KB                4 KB               40 KB"
        "                1 KB               10 KB                2 KB               20 KB"
        "          1700000000\n";
    const std::string fullKernel =
        "                   2           0           0           0            0           "
        "         0 KB                0 KB                0 KB                0 KB"
        "                0 KB                0 KB                0 KB                0 KB"
        "                   0\n";
    const std::string fullSmall =
        "a b                300         0           0           0            0           "
        "         0 KB 9007199254740991 KB               -1 KB                0 KB"
        "                0 KB                0 KB                0 KB                0 KB"
        "-9223372036854775808\n";
    const std::string normalHeader =
        "\ncomm               pid         ppid        threadNum   mmId        rssAnonSize         "
        "rssFileSize         rssShmemSize        rssSwapSize         initTimeStamp       \n"
        "sixteen chars ab   -1          2           3           4294967295           3 KB"
        "                4 KB                1 KB                2 KB          1700000000\n";
    const std::string normalKernel =
        "                   2           0           0           0                    0 KB"
        "                0 KB                0 KB                0 KB                   0\n";
    const std::string normalSmall =
        "a b                300         0           0           0                    0 KB"
        "               -1 KB                0 KB                0 KB-9223372036854775808\n";
    using Manager = TesuTaskManager;
    EXPECT_EQ(body(&Manager::DumpTesuTaskInfo), fullHeader + fullKernel + fullSmall);
    EXPECT_EQ(body(&Manager::DumpTesuTaskIgnoreKernelTaskInfo), fullHeader + fullSmall);
    EXPECT_EQ(body(&Manager::DumpTesuTaskInfoNormal), normalHeader + normalKernel + normalSmall);
    EXPECT_EQ(body(&Manager::DumpTesuTaskIgnoreKernelTaskInfoNormal), normalHeader + normalSmall);
}

TEST_F(TaskDumpTest, WhateverLiesInTheFilesPlaceIsReplaced) {
    folder.write("elsewhere", "precious");
    std::filesystem::create_directories(TesuTaskManager::TESUTASK_DUMP_PATH);
    std::filesystem::create_symlink(folder.path("elsewhere"), path);
    const std::string text = body(&TesuTaskManager::DumpTesuTaskInfo);
    EXPECT_EQ(ReadWholeFile(folder.path("elsewhere")), "precious");
    std::ofstream(path) << std::string(100000, 'x');
    EXPECT_EQ(body(&TesuTaskManager::DumpTesuTaskInfo), text);
}

}  // namespace
}  // namespace Tesu::Bpf
