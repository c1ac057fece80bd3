// SPDX-License-Identifier: Apache-2.0
#include "task/task_event_handlers.h"

#include <algorithm>
#include <cstring>
#include <optional>
#include <string_view>
#include <utility>

#include "records/notification.h"
#include "util/log.h"
#include "util/time_util.h"

namespace Tesu::Bpf {

namespace {

// Least age of a task, by the kernel's clock, before changes of it are reported; nanoseconds.
constexpr int64_t REPORT_AGE = 3000000000;
constexpr int64_t THREAD_REPORT_STEP = 11;
// Bytes, of all four sizes together.
constexpr uint64_t MEMORY_REPORT_STEP = 16384;
// Seconds between two looks at a name that may change.
constexpr int64_t REFRESH_INTERVAL = 3;
// Memory of init and of processes from this id on is reported.
constexpr int32_t INIT_PID = 1;
constexpr int32_t FIRST_REPORTED_PID = 301;
constexpr int32_t KERNEL_DAEMON_PID = 2;
constexpr uint32_t MM_ID = 1000;

// The current sizes by the kernel's rss member.
constexpr int64_t TesuTask::*RSS_SIZES[] = {&TesuTask::rssFileSize, &TesuTask::rssAnonSize,
                                            &TesuTask::rssSwapSize, &TesuTask::rssShmemSize};
constexpr int64_t TesuTask::*RSS_OLD_SIZES[] = {
    &TesuTask::rssFileOldSize, &TesuTask::rssAnonOldSize, &TesuTask::rssSwapOldSize,
    &TesuTask::rssShmemOldSize};
static_assert(std::size(RSS_SIZES) == RSS_MEMBER_COUNT);

void CopyComm(char (&to)[TESU_COMM_LEN], const char (&from)[TESU_COMM_LEN]) {
    std::memcpy(to, from, TESU_COMM_LEN);
}

// The difference wraps.
bool IsOldEnough(const TesuTask& task, int64_t time) {
    return static_cast<int64_t>(static_cast<uint64_t>(time) -
                                static_cast<uint64_t>(task.createEventTime)) >= REPORT_AGE;
}

// `prefix` is a literal.
template <size_t N>
bool BeginsWith(const TesuTask& task, const char (&prefix)[N]) {
    static_assert(N - 1 <= TESU_COMM_LEN);
    return std::memcmp(task.comm, prefix, N - 1) == 0;
}

std::optional<ThreadCountNotification> TakeThreadReport(TesuTask* task, int64_t time) {
    if (!IsOldEnough(*task, time) ||
        SubAbs(task->threadNum, task->oldThreadNum) < THREAD_REPORT_STEP) {
        return std::nullopt;
    }
    const ThreadCountNotification report{.type = NOTIFICATION_THREAD_COUNT,
                                         .pid = task->pid,
                                         .ppid = task->ppid,
                                         .uid = task->uid,
                                         .oldThreadNum = task->oldThreadNum,
                                         .threadNum = task->threadNum};
    task->oldThreadNum = task->threadNum;
    return report;
}

// By how much, cut to the report step: four of them cannot exceed the type.
uint64_t Moved(int64_t size, int64_t old) {
    const auto up = static_cast<uint64_t>(size) - static_cast<uint64_t>(old);
    return std::min(size > old ? up : -up, MEMORY_REPORT_STEP);
}

// Whether the sizes moved by at least the report step since the last report, all together.
bool HasMemoryMoved(const TesuTask& task) {
    return Moved(task.rssFileSize, task.rssFileOldSize) +
               Moved(task.rssAnonSize, task.rssAnonOldSize) +
               Moved(task.rssSwapSize, task.rssSwapOldSize) +
               Moved(task.rssShmemSize, task.rssShmemOldSize) >=
           MEMORY_REPORT_STEP;
}

bool IsMemoryReported(const TesuTask& task) {
    return (task.pid == INIT_PID || task.pid >= FIRST_REPORTED_PID) &&
           task.ppid != KERNEL_DAEMON_PID && !BeginsWith(task, "dumpsys") &&
           !BeginsWith(task, "sh");
}

// Whether there is one; else `report` is left as it is.
bool TakeMemoryReport(TesuTask* task, int64_t time, MemoryNotification* report) {
    if (!IsMemoryReported(*task) || !IsOldEnough(*task, time) || !HasMemoryMoved(*task)) {
        return false;
    }
    *report = {.type = NOTIFICATION_MEMORY,
               .pid = task->pid,
               .ppid = task->ppid,
               .uid = task->uid,
               .comm = {},
               .rssFileSize = task->rssFileSize,
               .rssAnonSize = task->rssAnonSize,
               .rssSwapSize = task->rssSwapSize,
               .rssShmemSize = task->rssShmemSize,
               .rssFileOldSize = task->rssFileOldSize,
               .rssAnonOldSize = task->rssAnonOldSize,
               .rssSwapOldSize = task->rssSwapOldSize,
               .rssShmemOldSize = task->rssShmemOldSize};
    CopyComm(report->comm, task->comm);
    for (int32_t member = 0; member < RSS_MEMBER_COUNT; ++member) {
        task->*RSS_OLD_SIZES[member] = task->*RSS_SIZES[member];
    }
    return true;
}

}  // namespace

TaskEventHandlers::TaskEventHandlers(TesuTaskManager* table,
                                     const std::set<std::string>* refreshNames, Emit emit,
                                     ReadProcess readProcess)
    : table(table),
      refreshNames(refreshNames),
      emit(std::move(emit)),
      readProcess(std::move(readProcess)) {}

void TaskEventHandlers::onTaskInit(const RawTesuTaskInitEvent& event) {
    TesuTask task;
    task.pid = event.pid;
    task.ppid = event.ppid;
    task.uid = event.uid;
    task.threadNum = event.threadNum;
    task.oldThreadNum = event.threadNum;
    CopyComm(task.comm, event.comm);
    task.rssFileSize = task.rssFileOldSize = event.rssFileSize;
    task.rssAnonSize = task.rssAnonOldSize = event.rssAnonSize;
    task.rssSwapSize = task.rssSwapOldSize = event.rssSwapSize;
    task.rssShmemSize = task.rssShmemOldSize = event.rssShmemSize;
    task.initTimeStamp = event.startTime;
    task.createEventTime = event.header.time;
    MutexLock lock(TesuTaskManager::tesuTaskManagerLock);
    table->AddTesuTask(event.pid, task);
}

void TaskEventHandlers::onTaskCreate(const RawTaskCreateEvent& event) {
    if (event.taskType == RAW_TASK_THREAD) {
        countThread(event.pid, event.header.time, 1);
    } else if (event.taskType == RAW_TASK_PROCESS) {
        addProcess(event);
    } else {
        TESU_LOGE(TESU_LOG_SERVICE,
                  "[TesuBpfService] Task Create raw event (SCHED__TASK_CREATE) error!");
    }
}

// A thread came (step 1) or went (step -1) at `time`. What the table learned of the process at
// that time or later has the thread counted already.
void TaskEventHandlers::countThread(int32_t pid, int64_t time, int32_t step) {
    std::optional<ThreadCountNotification> report;
    {
        MutexLock lock(TesuTaskManager::tesuTaskManagerLock);
        TesuTask* task = table->GetTesuTask(pid);
        if (task == nullptr || task->createEventTime >= time) {
            return;
        }
        // Wraps.
        task->threadNum = static_cast<int32_t>(static_cast<uint32_t>(task->threadNum) +
                                               static_cast<uint32_t>(step));
        report = TakeThreadReport(task, time);
    }
    if (report) {
        emit(&*report, sizeof(*report));
    }
}

void TaskEventHandlers::addProcess(const RawTaskCreateEvent& event) {
    TesuTask task;
    task.pid = event.pid;
    task.ppid = event.ppid;
    task.uid = event.uid;
    task.threadNum = 1;
    task.oldThreadNum = 1;
    CopyComm(task.comm, event.comm);
    task.initTimeStamp = static_cast<int64_t>(GetSystemSecondsTime());
    task.createEventTime = event.header.time;
    {
        MutexLock lock(TesuTaskManager::tesuTaskManagerLock);
        if (table->GetTesuTask(event.pid) != nullptr) {
            return;
        }
        UpdateProcessExdata present;
        if (event.ppid == 0 && readProcess(event.pid, &present) == 0) {
            task.ppid = present.ppid;
            CopyComm(task.comm, present.comm);
        }
        table->AddTesuTask(event.pid, task);
    }
    ProcessCreatedNotification created{.type = NOTIFICATION_PROCESS_CREATED,
                                       .pid = task.pid,
                                       .ppid = task.ppid,
                                       .uid = task.uid,
                                       .comm = {}};
    CopyComm(created.comm, task.comm);
    emit(&created, sizeof(created));
}

void TaskEventHandlers::onTaskExit(const RawTaskExitEvent& event) {
    if (event.taskType == RAW_TASK_THREAD) {
        countThread(event.pid, event.header.time, -1);
    } else if (event.taskType == RAW_TASK_PROCESS) {
        {
            MutexLock lock(TesuTaskManager::tesuTaskManagerLock);
            table->DelTesuTask(event.pid);
        }
        ProcessExitedNotification exited{
            .type = NOTIFICATION_PROCESS_EXITED, .pid = event.pid, .comm = {}};
        CopyComm(exited.comm, event.comm);
        emit(&exited, sizeof(exited));
    } else {
        TESU_LOGE(TESU_LOG_SERVICE,
                  "[TesuBpfService] Task Exit raw event (SCHED__TASK_EXIT) error!");
    }
}

void TaskEventHandlers::onRssStat(const RawRssStatEvent& event) {
    if (event.size < 0 || event.member < 0 || event.member >= RSS_MEMBER_COUNT) {
        return;
    }
    // Not an optional, which would be cleared for each record.
    MemoryNotification report;
    bool isReported = false;
    {
        MutexLock lock(TesuTaskManager::tesuTaskManagerLock);
        TesuTask* task = table->GetTesuTask(event.pid);
        if (task == nullptr) {
            return;
        }
        if (isRefreshed(*task)) {
            refreshIfDue(task);
        }
        task->mmId = MM_ID;
        task->*RSS_SIZES[event.member] = event.size;
        isReported = TakeMemoryReport(task, event.header.time, &report);
    }
    if (isReported) {
        emit(&report, sizeof(report));
    }
}

// The names are two: to compare each, lengths first, costs less than to follow their order.
bool TaskEventHandlers::isRefreshed(const TesuTask& task) const {
    const std::string_view name(task.comm, strnlen(task.comm, TESU_COMM_LEN));
    return std::find(refreshNames->begin(), refreshNames->end(), name) != refreshNames->end();
}

// Reads name and parent again; at most once per interval, whether or not that succeeds.
void TaskEventHandlers::refreshIfDue(TesuTask* task) {
    const auto elapsed = static_cast<int64_t>(
        GetSystemSecondsTime() - static_cast<unsigned long long>(task->lastRefreshTime));
    if (elapsed < REFRESH_INTERVAL) {
        return;
    }
    UpdateProcessExdata present;
    if (readProcess(task->pid, &present) == 0) {
        task->ppid = present.ppid;
        CopyComm(task->comm, present.comm);
    }
    task->lastRefreshTime = static_cast<int64_t>(GetSystemSecondsTime());
}

}  // namespace Tesu::Bpf
