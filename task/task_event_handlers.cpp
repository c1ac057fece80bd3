// SPDX-License-Identifier: Apache-2.0
//
// Keeps the task table current from the kernel's records, and tells clients of what changed.
//
// A handler holds the table's lock over its whole update of a record; a notification is built under
// it and sent after.
#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <optional>
#include <string>

#include "events/event_manager.h"
#include "proc/proc_files.h"
#include "records/notification.h"
#include "records/raw_event.h"
#include "records/read_prefix.h"
#include "service/tesu_bpf_service.h"
#include "task/tesu_bpf_task_manager.h"
#include "util/log.h"
#include "util/string_util.h"
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
constexpr int32_t RSS_MEMBER_COUNT = std::size(RSS_SIZES);

template <class Notification>
void Send(const Notification& notification) {
    EventManager::GetInstance()->AppendEvent(reinterpret_cast<const char*>(&notification),
                                             sizeof(notification));
}

void CopyComm(char (&to)[TESU_COMM_LEN], const char (&from)[TESU_COMM_LEN]) {
    std::memcpy(to, from, TESU_COMM_LEN);
}

// Both wrap.
int32_t Add(int32_t a, int32_t b) {
    return static_cast<int32_t>(static_cast<uint32_t>(a) + static_cast<uint32_t>(b));
}
bool IsOldEnough(const TesuTask& task, int64_t time) {
    return static_cast<int64_t>(static_cast<uint64_t>(time) -
                                static_cast<uint64_t>(task.createEventTime)) >= REPORT_AGE;
}

bool BeginsWith(const TesuTask& task, const char* prefix) {
    return std::strncmp(task.comm, prefix, std::strlen(prefix)) == 0;
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

// A thread came (step 1) or went (step -1) at `time`. What the table learned of the process at
// that time or later has the thread counted already.
void CountThread(int32_t pid, int64_t time, int32_t step) {
    std::optional<ThreadCountNotification> report;
    {
        std::lock_guard lock(TesuTaskManager::tesuTaskManagerLock);
        TesuTask* task = TesuTaskManager::GetInstance()->GetTesuTask(pid);
        if (task == nullptr || task->createEventTime >= time) {
            return;
        }
        task->threadNum = Add(task->threadNum, step);
        report = TakeThreadReport(task, time);
    }
    if (report) {
        Send(*report);
    }
}

std::optional<ProcessCreatedNotification> AddCreatedProcess(const RawTaskCreateEvent& event) {
    std::lock_guard lock(TesuTaskManager::tesuTaskManagerLock);
    TesuTaskManager* manager = TesuTaskManager::GetInstance();
    if (manager->GetTesuTask(event.pid) != nullptr) {
        return std::nullopt;
    }
    TesuTask task;
    task.pid = event.pid;
    task.ppid = event.ppid;
    task.uid = event.uid;
    task.threadNum = 1;
    task.oldThreadNum = 1;
    CopyComm(task.comm, event.comm);
    task.initTimeStamp = static_cast<int64_t>(GetSystemSecondsTime());
    task.createEventTime = event.header.time;
    if (event.ppid == 0) {
        UpdateProcessExdata present;
        if (TesuBpfService::getProcessInfo(event.pid, &present) == 0) {
            task.ppid = present.ppid;
            CopyComm(task.comm, present.comm);
        }
    }
    manager->AddTesuTask(event.pid, task);

    ProcessCreatedNotification created{.type = NOTIFICATION_PROCESS_CREATED,
                                       .pid = task.pid,
                                       .ppid = task.ppid,
                                       .uid = task.uid,
                                       .comm = {}};
    CopyComm(created.comm, task.comm);
    return created;
}

// Reads name and parent again; at most once per interval, whether or not that succeeds.
void RefreshIfDue(TesuTask* task) {
    const auto elapsed = static_cast<int64_t>(
        GetSystemSecondsTime() - static_cast<unsigned long long>(task->lastRefreshTime));
    if (elapsed < REFRESH_INTERVAL) {
        return;
    }
    UpdateProcessExdata present;
    if (TesuBpfService::getProcessInfo(task->pid, &present) == 0) {
        task->ppid = present.ppid;
        CopyComm(task->comm, present.comm);
    }
    task->lastRefreshTime = static_cast<int64_t>(GetSystemSecondsTime());
}

// Whether the sizes moved by at least the report step since the last report, all together.
bool HasMemoryMoved(const TesuTask& task) {
    uint64_t moved = 0;
    for (int32_t member = 0; member < RSS_MEMBER_COUNT; ++member) {
        const auto difference =
            static_cast<uint64_t>(SubAbs(task.*RSS_SIZES[member], task.*RSS_OLD_SIZES[member]));
        // Cut to the step, the four cannot exceed the type.
        moved += std::min(difference, MEMORY_REPORT_STEP);
    }
    return moved >= MEMORY_REPORT_STEP;
}

bool IsMemoryReported(const TesuTask& task) {
    return (task.pid == INIT_PID || task.pid >= FIRST_REPORTED_PID) &&
           task.ppid != KERNEL_DAEMON_PID && !BeginsWith(task, "dumpsys") &&
           !BeginsWith(task, "sh");
}

std::optional<MemoryNotification> TakeMemoryReport(TesuTask* task, int64_t time) {
    if (!IsMemoryReported(*task) || !IsOldEnough(*task, time) || !HasMemoryMoved(*task)) {
        return std::nullopt;
    }
    MemoryNotification report{.type = NOTIFICATION_MEMORY,
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
    CopyComm(report.comm, task->comm);
    for (int32_t member = 0; member < RSS_MEMBER_COUNT; ++member) {
        task->*RSS_OLD_SIZES[member] = task->*RSS_SIZES[member];
    }
    return report;
}

}  // namespace

int TesuBpfService::handleTesuTaskInitEvent(char* data, int64_t size) {
    const auto event = ReadPrefix<RawTesuTaskInitEvent>(data, size);
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
    std::lock_guard lock(TesuTaskManager::tesuTaskManagerLock);
    TesuTaskManager::GetInstance()->AddTesuTask(event.pid, task);
    return 0;
}

int TesuBpfService::handleSched_SchedProcessFork(char* data, int64_t size) {
    const auto event = ReadPrefix<RawTaskCreateEvent>(data, size);
    if (event.taskType == RAW_TASK_THREAD) {
        CountThread(event.pid, event.header.time, 1);
    } else if (event.taskType == RAW_TASK_PROCESS) {
        if (const auto created = AddCreatedProcess(event)) {
            Send(*created);
        }
    } else {
        TESU_LOGE(TESU_LOG_SERVICE,
                  "[TesuBpfService] Task Create raw event (SCHED__TASK_CREATE) error!");
    }
    return 0;
}

int TesuBpfService::handleSched_SchedProcessExit(char* data, int64_t size) {
    const auto event = ReadPrefix<RawTaskExitEvent>(data, size);
    if (event.taskType == RAW_TASK_THREAD) {
        CountThread(event.pid, event.header.time, -1);
    } else if (event.taskType == RAW_TASK_PROCESS) {
        {
            std::lock_guard lock(TesuTaskManager::tesuTaskManagerLock);
            TesuTaskManager::GetInstance()->DelTesuTask(event.pid);
        }
        ProcessExitedNotification exited{
            .type = NOTIFICATION_PROCESS_EXITED, .pid = event.pid, .comm = {}};
        CopyComm(exited.comm, event.comm);
        Send(exited);
    } else {
        TESU_LOGE(TESU_LOG_SERVICE,
                  "[TesuBpfService] Task Exit raw event (SCHED__TASK_EXIT) error!");
    }
    return 0;
}

int TesuBpfService::handleKmem_RssStat(char* data, int64_t size) {
    const auto event = ReadPrefix<RawRssStatEvent>(data, size);
    if (event.size < 0 || event.member < 0 || event.member >= RSS_MEMBER_COUNT) {
        return 0;
    }
    std::optional<MemoryNotification> report;
    {
        std::lock_guard lock(TesuTaskManager::tesuTaskManagerLock);
        TesuTask* task = TesuTaskManager::GetInstance()->GetTesuTask(event.pid);
        if (task == nullptr) {
            return 0;
        }
        if (refreshNames.count({task->comm, strnlen(task->comm, TESU_COMM_LEN)}) != 0) {
            RefreshIfDue(task);
        }
        task->mmId = MM_ID;
        task->*RSS_SIZES[event.member] = event.size;
        report = TakeMemoryReport(task, event.header.time);
    }
    if (report) {
        Send(*report);
    }
    return 0;
}

int TesuBpfService::handleBpfPassthrough(char* data, int64_t size) {
    const int64_t length = std::clamp<int64_t>(size, 0, UINT_MAX);
    EventManager::GetInstance()->AppendEvent(data, static_cast<unsigned>(length));
    return 0;
}

int TesuBpfService::getProcessInfo(int32_t pid, UpdateProcessExdata* out) {
    std::string buffer;
    const auto status =
        ReadProcStatus(StringPrintf(TASK_STATUS_PID_TEMPLATE.c_str(), pid), &buffer);
    if (!status) {
        TESU_LOGW(TESU_LOG_SERVICE, "[TesuBpfService][GPI] Task not exists, errno info: %s",
                  strerror(errno));
        return -1;
    }
    out->pid = pid;
    out->ppid = status->ppid;
    CopyComm(out->comm, status->comm);
    return 0;
}

}  // namespace Tesu::Bpf
