// SPDX-License-Identifier: Apache-2.0
#include "task/task_dump.h"

#include <android-base/properties.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>

#include "records/contract.h"
#include "task/tesu_bpf_task_manager.h"
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

std::vector<DumpRow> OrderByPid(const std::vector<TaskStore::Chunk>& copy) {
    std::vector<DumpRow> rows;
    rows.reserve(copy.size() * TaskStore::CHUNK_SLOTS);
    for (const TaskStore::Chunk& chunk : copy) {
        for (size_t slot = 0; slot < TaskStore::CHUNK_SLOTS; ++slot) {
            if ((chunk.used >> slot & 1) != 0) {
                const TesuTask& task = chunk.tasks[slot];
                rows.push_back({chunk.pids[slot], TotalSize(task), &task});
            }
        }
    }
    std::sort(rows.begin(), rows.end(),
              [](const DumpRow& a, const DumpRow& b) { return a.pid < b.pid; });
    return rows;
}

// Merges ever longer runs. Every step is bounded by the ends of its two runs, whatever the
// comparison answers.
void SortForDump(std::vector<DumpRow>& rows) {
    std::vector<DumpRow> merged(rows.size());
    for (size_t run = 1; run < rows.size(); run *= 2) {
        for (size_t start = 0; start < rows.size(); start += 2 * run) {
            const size_t middle = std::min(start + run, rows.size());
            const size_t end = std::min(middle + run, rows.size());
            size_t left = start;
            size_t right = middle;
            for (size_t out = start; out < end; ++out) {
                const bool takeRight =
                    left == middle ||
                    (right != end && CompareTotals(rows[right].total, rows[left].total));
                merged[out] = rows[takeRight ? right++ : left++];
            }
        }
        rows.swap(merged);
    }
}

bool IsKernelTask(const TesuTask& task) {
    return task.rssFileSize == 0 && task.rssAnonSize == 0 && task.rssSwapSize == 0 &&
           task.rssShmemSize == 0;
}

std::string FormatTaskDump(size_t tableCount, uint64_t now, const std::vector<DumpRow>& rows,
                           bool withOldColumns) {
    std::string text = StringPrintf(TITLE, static_cast<unsigned>(tableCount),
                                    static_cast<unsigned long long>(now));
    text += withOldColumns ? FULL_HEADER : NORMAL_HEADER;
    text.reserve(text.size() + rows.size() * ROW_LENGTH);
    for (const DumpRow& row : rows) {
        text += withOldColumns ? FullRow(*row.task) : NormalRow(*row.task);
    }
    return text;
}

// The room is made before the lock is taken: the kernel gives memory page by page, when it is first
// touched, and that takes longer than the copy.
std::vector<TaskStore::Chunk> TesuTaskManager::copyTasks() {
    std::vector<TaskStore::Chunk> copy;
    for (size_t needed = 0;;) {
        copy.resize(needed);
        MutexLock lock(tesuTaskManagerLock);
        needed = tasks.chunkCount();
        if (needed <= copy.size()) {
            tasks.copyTo(copy.data());
            return copy;
        }
    }
}

void TesuTaskManager::dump(KernelTasks kernelTasks, OldColumns oldColumns) {
    const std::vector<TaskStore::Chunk> copy = copyTasks();
    std::vector<DumpRow> rows = OrderByPid(copy);
    const size_t count = rows.size();
    if (kernelTasks == KernelTasks::LEFT_OUT) {
        std::erase_if(rows, [](const DumpRow& row) { return IsKernelTask(*row.task); });
    }
    SortForDump(rows);
    const auto now = static_cast<uint64_t>(time(nullptr));
    const bool withOldColumns = oldColumns == OldColumns::PRINTED;
    const std::string folder = android::base::GetProperty(DUMP_DIR_PROPERTY, TESUTASK_DUMP_PATH);
    if (!ReplaceDumpFile(folder + "/" + TASK_DUMP_FILE,
                         FormatTaskDump(count, now, rows, withOldColumns))) {
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
