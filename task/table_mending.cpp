// SPDX-License-Identifier: Apache-2.0
#include "task/table_mending.h"

#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <optional>
#include <unordered_map>
#include <utility>

#include "task/task_scan.h"
#include "util/monotonic_clock.h"
#include "util/time_util.h"

namespace Tesu::Bpf {

namespace {

// Seconds by which two start times of one process may differ: one was cut from the kernel's, the
// other taken when the create record was handled.
constexpr int64_t START_TOLERANCE = 2;
// Processes of which /proc is read in one go, by the thread that ought to read a ring.
constexpr int READS_AT_A_TIME = 8;

// Nothing when it cannot be read. Its name is not to be used.
std::optional<ProcStat> ReadStat(const std::string& procRoot, int32_t pid) {
    std::string text;
    std::optional<ProcStat> stat;
    if (ReadProcFile(ProcPath(procRoot, std::to_string(pid), "stat"), &text)) {
        stat = ParseProcStat(text);
    }
    return stat;
}

// Whether there is no such process any more, or only its exit status. Some of /proc may be hidden,
// and a thread may have the id, so this asks the kernel for the process.
bool HasEnded(const std::string& procRoot, int32_t pid) {
    if (syscall(SYS_tgkill, pid, pid, 0) != 0 && errno == ESRCH) {
        return true;
    }
    const auto stat = ReadStat(procRoot, pid);
    return stat && stat->state == 'Z' && stat->threadNum <= 1;
}

// Nothing when it has gone or is about to.
std::optional<RawTesuTaskInitEvent> ReadLivingTask(const std::string& procRoot, int32_t pid) {
    std::string text;
    auto record = ReadTask(procRoot, std::to_string(pid), &text);
    // Last, as what is read after it ended would be said of a living one.
    const auto stat = record ? ReadStat(procRoot, pid) : std::nullopt;
    return stat && !(stat->isEnding() && stat->threadNum <= 1) ? record : std::nullopt;
}

// Whether what the table has under the id is still that, or still nothing.
bool IsInTable(TesuTaskManager* table, int32_t pid, const std::optional<TaskIdentity>& expected)
    REQUIRES(TesuTaskManager::tesuTaskManagerLock) {
    const TesuTask* const task = table->GetTesuTask(pid);
    return expected ? task != nullptr && task->createEventTime == expected->createEventTime
                    : task == nullptr;
}

int64_t SecondsSinceEpoch() {
    return GetBasetime() + ClockNanoseconds(CLOCK_BOOTTIME) / NANOSECONDS_PER_SECOND;
}

}  // namespace

TableDifferences CompareTableWithProc(TesuTaskManager* table, const ComparisonOptions& options,
                                      const KeepScanning& keepScanning) {
    std::unordered_map<int32_t, TaskIdentity> listed;
    {
        MutexLock lock(TesuTaskManager::tesuTaskManagerLock);
        for (const TaskIdentity& task : table->ListTesuTasks()) {
            listed.emplace(task.pid, task);
        }
    }
    TableDifferences differences;
    std::string text;
    const bool isRead =
        ForEachProcess(options.procRoot, keepScanning, [&](const std::string& name) {
            const auto pid = static_cast<int32_t>(ParseNumber(name));
            auto known = listed.extract(pid);
            if (!known.empty() && !options.withStarts) {
                return;
            }
            const auto record = ReadTask(options.procRoot, name, &text);
            if (known.empty()) {
                if (record && SecondsSinceEpoch() - record->startTime >= options.minAge &&
                    !options.isCreatePending(pid)) {
                    differences.unknown.push_back({pid, record->startTime, {}});
                }
            } else if (!record) {
                listed.insert(std::move(known));
            } else if (std::llabs(record->startTime - known.mapped().initTimeStamp) >
                       START_TOLERANCE) {
                differences.unknown.push_back({pid, record->startTime, known.mapped()});
            }
        });
    if (!isRead || !keepScanning()) {
        return {};
    }
    for (const auto& [pid, task] : listed) {
        if (HasEnded(options.procRoot, pid)) {
            differences.gone.push_back(task);
        }
    }
    return differences;
}

bool TableMending::applySome(TesuTaskManager* table, const std::string& procRoot,
                             const Take& take) {
    for (const TaskIdentity& task : left.gone) {
        MutexLock lock(TesuTaskManager::tesuTaskManagerLock);
        if (IsInTable(table, task.pid, task)) {
            table->DelTesuTask(task.pid);
            ++removedCount;
        }
    }
    left.gone.clear();
    for (int reads = 0; reads < READS_AT_A_TIME && !left.unknown.empty(); ++reads) {
        const TableDifferences::Unknown task = left.unknown.back();
        left.unknown.pop_back();
        {
            MutexLock lock(TesuTaskManager::tesuTaskManagerLock);
            if (!IsInTable(table, task.pid, task.inPlace)) {
                continue;
            }
        }
        auto record = ReadLivingTask(procRoot, task.pid);
        if (record && record->startTime == task.startTime) {
            take(*record);
            ++addedCount;
        }
    }
    return !left.unknown.empty();
}

}  // namespace Tesu::Bpf
