// SPDX-License-Identifier: Apache-2.0
//
// What records do to the task table and which notifications a subscribed client gets for them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "records/raw_event.h"
#include "service/tesu_bpf_service.h"
#include "task/tesu_bpf_task_manager.h"
#include "tests/support/event_capture.h"
#include "util/time_util.h"

namespace Tesu::Bpf {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr int64_t BORN = 1000;              // time of the record that made a task
constexpr int64_t REPORT_AGE = 3000000000;  // nanoseconds
constexpr int32_t GONE = 0x7ffffffe;        // no process ever has this id

void SetName(char (&comm)[TESU_COMM_LEN], const std::string& name) {
    std::memset(comm, 0, sizeof(comm));
    std::memcpy(comm, name.data(), std::min(name.size(), sizeof(comm)));
}

std::string Bytes(std::initializer_list<int64_t> words) {
    std::string bytes;
    for (const int64_t word : words) {
        bytes.append(reinterpret_cast<const char*>(&word), sizeof(word));
    }
    return bytes;
}

std::string Words(std::initializer_list<int32_t> words) {
    std::string bytes;
    for (const int32_t word : words) {
        bytes += WireClient::word(static_cast<uint32_t>(word));
    }
    return bytes;
}

std::string Comm(std::string name) {
    name.resize(TESU_COMM_LEN);
    return name;
}

// The four current sizes, then the four old ones.
std::vector<int64_t> Sizes(const TesuTask& task) {
    return {task.rssFileSize,    task.rssAnonSize,    task.rssSwapSize,    task.rssShmemSize,
            task.rssFileOldSize, task.rssAnonOldSize, task.rssSwapOldSize, task.rssShmemOldSize};
}

template <class Record>
std::string BytesOf(const Record& record) {
    return {reinterpret_cast<const char*>(&record), sizeof(record)};
}

class TaskHandlersTest : public testing::Test {
  protected:
    // As from the ring buffer.
    template <class Record>
    void dispatch(Record record, unsigned size = sizeof(Record)) {
        EXPECT_EQ(TesuBpfService::handleBpfRingBuffEvent(nullptr, &record, size), 0);
    }
    void fork(int32_t pid, int32_t ppid, const std::string& name, int64_t time = BORN,
              int32_t taskType = RAW_TASK_PROCESS) {
        RawTaskCreateEvent event{};
        event.header = {.type = RAW_EVENT_TASK_CREATE, .padding = 0, .time = time};
        event.ppid = ppid;
        event.pid = pid;
        event.uid = 42;
        SetName(event.comm, name);
        event.taskType = taskType;
        dispatch(event);
    }
    void exitTask(int32_t pid, const std::string& name, int64_t time, int32_t taskType) {
        RawTaskExitEvent event{};
        event.header = {.type = RAW_EVENT_TASK_EXIT, .padding = 0, .time = time};
        event.pid = pid;
        SetName(event.comm, name);
        event.taskType = taskType;
        dispatch(event);
    }
    void rss(int32_t pid, int32_t member, int64_t size, int64_t time = BORN + REPORT_AGE) {
        RawRssStatEvent event{};
        event.header = {.type = RAW_EVENT_RSS_STAT, .padding = 0, .time = time};
        event.pid = pid;
        event.member = member;
        event.size = size;
        dispatch(event);
    }
    void addThreads(int32_t pid, int count, int64_t time) {
        for (int i = 0; i < count; ++i) {
            fork(pid, pid, "thread", time, RAW_TASK_THREAD);
        }
    }
    TesuTask* task(int32_t pid) { return TesuTaskManager::GetInstance()->GetTesuTask(pid); }
    uint32_t tableCount() { return TesuTaskManager::GetInstance()->GetTesuTaskCount(); }

    TesuBpfService* service = TesuBpfService::GetInstance();
    EventCapture client{50001, 50002, 50003, 50004};
};

TEST_F(TaskHandlersTest, InitRecordFillsAndOverwritesSilently) {
    const RawTesuTaskInitEvent event{
        .header = {.type = RAW_EVENT_TASK_INIT, .padding = 0, .time = -5},
        .pid = 500,
        .ppid = 400,
        .uid = 42,
        .threadNum = 7,
        .comm = {'s', 'i', 'x', 't', 'e', 'e', 'n', ' ', 'c', 'h', 'a', 'r', 's', ' ', 'a', 'b'},
        .rssFileSize = 1,
        .rssAnonSize = 2,
        .rssShmemSize = 3,
        .rssSwapSize = 4,
        .startTime = 1700000000};
    fork(500, 1, "old");
    EventCapture rawClient{0, 50001, 50004};
    dispatch(event);
    EXPECT_THAT(rawClient.take(), ElementsAre(BytesOf(event))) << "forwarded, nothing else sent";
    const TesuTask* stored = task(500);
    ASSERT_NE(stored, nullptr);
    EXPECT_THAT((std::vector<int64_t>{stored->ppid, stored->uid, stored->threadNum,
                                      stored->oldThreadNum, stored->initTimeStamp,
                                      stored->lastRefreshTime, stored->createEventTime}),
                ElementsAre(400, 42, 7, 7, 1700000000, 0, -5));
    EXPECT_EQ(std::string(stored->comm, sizeof(stored->comm)), "sixteen chars ab");
    EXPECT_THAT(Sizes(*stored), ElementsAre(1, 2, 4, 3, 1, 2, 4, 3));
}

TEST_F(TaskHandlersTest, ForkAddsAndTellsOnce) {
    const auto before = static_cast<int64_t>(GetSystemSecondsTime());
    fork(500, 400, "sixteen chars ab");
    EXPECT_THAT(client.take(), ElementsAre(Words({50001, 500, 400, 42}) + "sixteen chars ab"));
    const TesuTask* stored = task(500);
    ASSERT_NE(stored, nullptr);
    EXPECT_EQ(stored->threadNum, 1);
    EXPECT_EQ(stored->createEventTime, BORN);
    EXPECT_GE(stored->initTimeStamp, before);
    fork(500, 1, "again");
    EXPECT_THAT(client.take(), IsEmpty());
    EXPECT_EQ(stored->ppid, 400);
}

TEST_F(TaskHandlersTest, ForkWithoutParentAsksProc) {
    prctl(PR_SET_NAME, "from proc");
    fork(getpid(), 0, "raw");
    fork(GONE, 0, "raw");
    EXPECT_THAT(client.take(),
                ElementsAre(Words({50001, getpid(), getppid(), 42}) + Comm("from proc"),
                            Words({50001, GONE, 0, 42}) + Comm("raw")));
    EXPECT_EQ(task(getpid())->ppid, getppid());
    EXPECT_EQ(task(GONE)->ppid, 0);
}

TEST_F(TaskHandlersTest, ExitDeletesAndTellsEvenOfUnknownProcesses) {
    fork(500, 400, "name");
    client.take();
    exitTask(500, "now called this ", BORN + 1, RAW_TASK_PROCESS);
    exitTask(500, "b", BORN + 2, RAW_TASK_PROCESS);
    EXPECT_THAT(client.take(), ElementsAre(Words({50002, 500}) + "now called this ",
                                           Words({50002, 500}) + Comm("b")));
    EXPECT_EQ(task(500), nullptr);
}

TEST_F(TaskHandlersTest, WhatMakesNoSenseChangesNothing) {
    fork(500, 400, "name");
    client.take();
    const std::string before = BytesOf(*task(500));
    for (const int32_t type : {0, 3, -1}) {
        fork(501, 400, "name", BORN, type);
        exitTask(500, "name", BORN + 1, type);
    }
    for (const int32_t member : {4, -1, std::numeric_limits<int32_t>::min()}) {
        rss(500, member, 1 << 20);
    }
    rss(500, 0, -1);
    addThreads(502, 20, BORN + REPORT_AGE);
    rss(502, 0, 1 << 20);
    EXPECT_THAT(client.take(), IsEmpty());
    EXPECT_EQ(BytesOf(*task(500)), before);
    EXPECT_EQ(tableCount(), 1U);
}

TEST_F(TaskHandlersTest, ThreadsCountOnlyWhenYoungerThanTheRecord) {
    fork(500, 400, "name");
    addThreads(500, 3, BORN);
    EXPECT_EQ(task(500)->threadNum, 1);
    addThreads(500, 1, BORN + 1);
    exitTask(500, "thread", BORN, RAW_TASK_THREAD);
    EXPECT_EQ(task(500)->threadNum, 2);
    exitTask(500, "thread", BORN + 1, RAW_TASK_THREAD);
    EXPECT_EQ(task(500)->threadNum, 1);
}

TEST_F(TaskHandlersTest, ThreadCountIsReportedInStepsOfEleven) {
    fork(500, 400, "name");
    client.take();
    addThreads(500, 10, BORN + REPORT_AGE);
    EXPECT_THAT(client.take(), IsEmpty());
    // Only the record's age counts, not the time since the last report.
    addThreads(500, 1 + 11, BORN + REPORT_AGE);
    for (int i = 0; i < 11; ++i) {
        exitTask(500, "thread", BORN + REPORT_AGE, RAW_TASK_THREAD);
    }
    EXPECT_THAT(client.take(), ElementsAre(Words({50003, 500, 400, 42, 1, 12}),
                                           Words({50003, 500, 400, 42, 12, 23}),
                                           Words({50003, 500, 400, 42, 23, 12})));
}

TEST_F(TaskHandlersTest, YoungProcessesReportLater) {
    fork(500, 400, "name");
    client.take();
    addThreads(500, 11, BORN + REPORT_AGE - 1);
    rss(500, 1, 1 << 20, BORN + REPORT_AGE - 1);
    EXPECT_THAT(client.take(), IsEmpty());
    addThreads(500, 1, BORN + REPORT_AGE);
    rss(500, 1, 1 << 20, BORN + REPORT_AGE);
    EXPECT_THAT(client.take(), ElementsAre(Words({50003, 500, 400, 42, 1, 13}),
                                           Words({50004, 500, 400, 42}) + Comm("name") +
                                               Bytes({0, 1 << 20, 0, 0, 0, 0, 0, 0})));
}

TEST_F(TaskHandlersTest, MemoryChangesAddUpUntilReported) {
    fork(301, 400, "sixteen chars ab");
    client.take();
    for (const int32_t member : {0, 1, 2}) {
        rss(301, member, 4096);
    }
    rss(301, 3, 4095);
    EXPECT_THAT(client.take(), IsEmpty()) << "16383 bytes";
    EXPECT_EQ(task(301)->mmId, 1000U);
    rss(301, 3, 4096);
    // From here on against what was reported, downwards too.
    rss(301, 1, 0);
    rss(301, 2, 4096 + 12287);
    EXPECT_EQ(task(301)->rssSwapOldSize, 4096);
    rss(301, 2, 4096 + 12288);
    const std::string head = Words({50004, 301, 400, 42}) + "sixteen chars ab";
    EXPECT_THAT(client.take(),
                ElementsAre(head + Bytes({4096, 4096, 4096, 4096, 0, 0, 0, 0}),
                            head + Bytes({4096, 0, 16384, 4096, 4096, 4096, 4096, 4096})));
    EXPECT_THAT(Sizes(*task(301)), ElementsAre(4096, 0, 16384, 4096, 4096, 0, 16384, 4096));
}

TEST_F(TaskHandlersTest, MemoryOfSomeProcessesIsNeverReported) {
    struct Case {
        int32_t pid;
        int32_t ppid;
        const char* name;
        size_t reports;
    };
    for (const Case& each :
         {Case{1, 1, "init", 1}, Case{2, 1, "two", 0}, Case{300, 1, "id", 0}, Case{301, 1, "id", 1},
          Case{-1, 1, "id", 0}, Case{600, 2, "kworker", 0}, Case{601, 3, "dumpsys2", 0},
          Case{602, 1, "dumpsy", 1}, Case{603, 1, "sh", 0}, Case{604, 1, "shell", 0},
          Case{605, 1, "s", 1}, Case{606, 1, "ssh", 1}}) {
        fork(each.pid, each.ppid, each.name);
        client.take();
        rss(each.pid, 1, 16384);
        EXPECT_EQ(client.take().size(), each.reports) << each.pid << " " << each.name;
        EXPECT_EQ(task(each.pid)->rssAnonSize, 16384) << "the size itself is kept";
    }
}

TEST_F(TaskHandlersTest, RefreshNamesAreReadAgainEveryThreeSeconds) {
    prctl(PR_SET_NAME, "main");
    fork(getpid(), 7, "main");
    TesuTask* self = task(getpid());
    rss(getpid(), 0, 1);
    EXPECT_EQ(self->ppid, getppid());

    self->ppid = 7;
    self->lastRefreshTime += 1000;
    rss(getpid(), 0, 2);
    EXPECT_EQ(self->ppid, 7) << "read too early";
    prctl(PR_SET_NAME, "renamed");
    self->lastRefreshTime = static_cast<int64_t>(GetSystemSecondsTime()) - 3;
    rss(getpid(), 0, 3);
    EXPECT_EQ(self->ppid, getppid());
    EXPECT_STREQ(self->comm, "renamed");

    self->ppid = 7;
    self->lastRefreshTime = 0;
    rss(getpid(), 0, 4);
    EXPECT_EQ(self->ppid, 7) << "no longer one of the names";
    SetName(self->comm, "re-initialized>");
    rss(getpid(), 0, 5);
    EXPECT_EQ(self->ppid, getppid());
}

TEST_F(TaskHandlersTest, FailedRefreshKeepsTheNameAndWaits) {
    fork(GONE, 7, "main");
    const auto before = static_cast<int64_t>(GetSystemSecondsTime());
    rss(GONE, 0, 1);
    EXPECT_STREQ(task(GONE)->comm, "main");
    EXPECT_EQ(task(GONE)->ppid, 7);
    EXPECT_GE(task(GONE)->lastRefreshTime, before);
    UpdateProcessExdata data;
    EXPECT_EQ(TesuBpfService::getProcessInfo(GONE, &data), -1);
}

TEST_F(TaskHandlersTest, ShortAndLongRecords) {
    struct {
        RawTaskCreateEvent event;
        char more[16] = {};
    } longer{};
    longer.event.header.type = RAW_EVENT_TASK_CREATE;
    longer.event.pid = 500;
    longer.event.ppid = 400;
    longer.event.taskType = RAW_TASK_PROCESS;
    dispatch(longer, offsetof(RawTaskCreateEvent, taskType));
    EXPECT_EQ(tableCount(), 0U) << "what is missing is 0, and that is no task type";
    dispatch(longer);
    EXPECT_NE(task(500), nullptr);

    RawTesuTaskInitEvent init{};
    init.pid = 600;
    init.rssFileSize = 9;
    dispatch(init, offsetof(RawTesuTaskInitEvent, rssFileSize));
    EXPECT_EQ(task(600)->rssFileSize, 0);
    EXPECT_EQ(service->handleSched_SchedProcessExit(nullptr, -1), 0);

    client.take();
    std::string record = Words({50001, 1, 2, 3});
    EXPECT_EQ(service->handleBpfPassthrough(record.data(), static_cast<int64_t>(record.size())), 0);
    EXPECT_EQ(service->handleBpfPassthrough(record.data(), -1), 0);
    EXPECT_THAT(client.take(), ElementsAre(record));
}

TEST_F(TaskHandlersTest, ExtremesAreDefined) {
    constexpr int64_t LARGEST = std::numeric_limits<int64_t>::max();
    constexpr int64_t LEAST = std::numeric_limits<int64_t>::min();
    for (const int64_t born : {LEAST, int64_t{0}, LARGEST}) {
        RawTesuTaskInitEvent init{};
        init.header.time = born;
        init.pid = 500;
        init.threadNum = std::numeric_limits<int32_t>::max();
        init.rssFileSize = init.rssAnonSize = init.rssSwapSize = init.rssShmemSize = LEAST;
        dispatch(init);
        for (const int64_t time : {LEAST, int64_t{1}, LARGEST}) {
            addThreads(500, 1, time);
            for (const int32_t member : {0, 1, 2, 3}) {
                rss(500, member, LARGEST, time);
            }
        }
    }
}

}  // namespace
}  // namespace Tesu::Bpf
