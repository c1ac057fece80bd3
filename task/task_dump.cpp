// SPDX-License-Identifier: Apache-2.0
#include "task/task_dump.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>

#include "records/contract.h"
#include "util/dump_file.h"
#include "util/log.h"
#include "util/string_util.h"

namespace Tesu::Bpf {

namespace {

constexpr const char* TITLE =
    "============ DUMP ALL TESU TASKS INFO (count: %u, time: %llu) ============\n";
constexpr const char* FULL_HEADER =
    "comm               pid         ppid        threadNum   oldThreadNum mmId        "
    "rssAnonSize         rssAnonOldSize      "
    "rssFileSize         rssFileOldSize      rssShmemSize        rssShmemOldSize     "
    "rssSwapSize         rssSwapOldSize      "
    "initTimeStamp       \n";
constexpr const char* NORMAL_HEADER =
    "comm               pid         ppid        threadNum   mmId        rssAnonSize         "
    "rssFileSize         rssShmemSize        rssSwapSize         "
    "initTimeStamp       \n";
// A little above the length of a row, for reserving room.
constexpr size_t ROW_LENGTH = 280;

// printf's %lld takes this type on every build.
long long Kilobytes(int64_t bytes) {
    return bytes / 1024;
}

std::string FullRow(const TesuTask& task) {
    return StringPrintf(
        "%-16.16s   %-12d%-12d%-12d%-13d%-12u%10lld KB%17lld KB%17lld KB%17lld KB%17lld KB%17lld KB"
        "%17lld KB%17lld KB%20lld\n",
        task.comm, task.pid, task.ppid, task.threadNum, task.oldThreadNum, task.mmId,
        Kilobytes(task.rssAnonSize), Kilobytes(task.rssAnonOldSize), Kilobytes(task.rssFileSize),
        Kilobytes(task.rssFileOldSize), Kilobytes(task.rssShmemSize),
        Kilobytes(task.rssShmemOldSize), Kilobytes(task.rssSwapSize),
        Kilobytes(task.rssSwapOldSize), static_cast<long long>(task.initTimeStamp));
}

std::string NormalRow(const TesuTask& task) {
    return StringPrintf(
        "%-16.16s   %-12d%-12d%-12d%-12u%10lld KB%17lld KB%17lld KB%17lld KB%20lld\n", task.comm,
        task.pid, task.ppid, task.threadNum, task.mmId, Kilobytes(task.rssAnonSize),
        Kilobytes(task.rssFileSize), Kilobytes(task.rssShmemSize), Kilobytes(task.rssSwapSize),
        static_cast<long long>(task.initTimeStamp));
}

}  // namespace

const std::string TesuTaskManager::TESUTASK_DUMP_PATH = DUMP_DIR;
const std::string TesuTaskManager::TESUTASK_DUMP_TEMPLATE =
    TESUTASK_DUMP_PATH + "/" + TASK_DUMP_FILE;

// Merges ever longer runs. Every step is bounded by the ends of its two runs, whatever the
// comparison answers.
void SortForDump(std::vector<TesuTask>& tasks) {
    std::vector<TesuTask> merged(tasks.size());
    for (size_t run = 1; run < tasks.size(); run *= 2) {
        for (size_t start = 0; start < tasks.size(); start += 2 * run) {
            const size_t middle = std::min(start + run, tasks.size());
            const size_t end = std::min(middle + run, tasks.size());
            size_t left = start;
            size_t right = middle;
            for (size_t out = start; out < end; ++out) {
                const bool takeRight =
                    left == middle || (right != end && CompareTesuTask(tasks[right], tasks[left]));
                merged[out] = tasks[takeRight ? right++ : left++];
            }
        }
        tasks.swap(merged);
    }
}

bool IsKernelTask(const TesuTask& task) {
    return task.rssFileSize == 0 && task.rssAnonSize == 0 && task.rssSwapSize == 0 &&
           task.rssShmemSize == 0;
}

std::string FormatTaskDump(uint32_t tableCount, uint64_t now, const std::vector<TesuTask>& tasks,
                           bool withOldColumns) {
    std::string text = StringPrintf(TITLE, tableCount, static_cast<unsigned long long>(now));
    text += withOldColumns ? FULL_HEADER : NORMAL_HEADER;
    text.reserve(text.size() + tasks.size() * ROW_LENGTH);
    for (const TesuTask& task : tasks) {
        text += withOldColumns ? FullRow(task) : NormalRow(task);
    }
    return text;
}

void TesuTaskManager::dump(KernelTasks kernelTasks, OldColumns oldColumns) {
    uint32_t count = 0;
    std::vector<TesuTask> copies;
    {
        MutexLock lock(tesuTaskManagerLock);
        count = GetTesuTaskCount();
        copies.reserve(count);
        for (const auto& [pid, task] : tasks) {
            if (kernelTasks == KernelTasks::INCLUDED || !IsKernelTask(task)) {
                copies.push_back(task);
            }
        }
    }
    SortForDump(copies);
    const auto now = static_cast<uint64_t>(time(nullptr));
    const bool withOldColumns = oldColumns == OldColumns::PRINTED;
    if (!ReplaceDumpFile(TESUTASK_DUMP_TEMPLATE,
                         FormatTaskDump(count, now, copies, withOldColumns))) {
        TESU_LOGE(TESU_LOG_UTILS, "failed to dump tesu task, error: %s", strerror(errno));
    }
}

void TesuTaskManager::DumpTesuTaskInfo() {
    dump(KernelTasks::INCLUDED, OldColumns::PRINTED);
}

void TesuTaskManager::DumpTesuTaskIgnoreKernelTaskInfo() {
    dump(KernelTasks::LEFT_OUT, OldColumns::PRINTED);
}

void TesuTaskManager::DumpTesuTaskInfoNormal() {
    dump(KernelTasks::INCLUDED, OldColumns::LEFT_OUT);
}

void TesuTaskManager::DumpTesuTaskIgnoreKernelTaskInfoNormal() {
    dump(KernelTasks::LEFT_OUT, OldColumns::LEFT_OUT);
}

void HandleDumpSignal(int /*signal*/) {
    TesuTaskManager::GetInstance()->DumpTesuTaskInfo();
}

void HandleNonKernelDumpSignal(int /*signal*/) {
    TesuTaskManager::GetInstance()->DumpTesuTaskIgnoreKernelTaskInfo();
}

void HandleDumpSignalNormal(int /*signal*/) {
    TesuTaskManager::GetInstance()->DumpTesuTaskInfoNormal();
}

void HandleNonKernelDumpSignalNormal(int /*signal*/) {
    TesuTaskManager::GetInstance()->DumpTesuTaskIgnoreKernelTaskInfoNormal();
}

}  // namespace Tesu::Bpf
