// SPDX-License-Identifier: Apache-2.0
#include "task/task_scan.h"

#include <unistd.h>

#include <cstring>
#include <optional>

#include "diag/tesu_bpf_state.h"
#include "proc/proc_files.h"
#include "service/tesu_bpf_service.h"
#include "util/log.h"
#include "util/time_util.h"

namespace Tesu::Bpf {

namespace {

// Seconds since the epoch.
int64_t StartTime(const ProcStat& stat) {
    static const long TICKS_PER_SECOND = sysconf(_SC_CLK_TCK);
    const int64_t sinceBoot = TICKS_PER_SECOND > 0 ? stat.startTicks / TICKS_PER_SECOND : 0;
    return static_cast<int64_t>(static_cast<uint64_t>(GetBasetime()) +
                                static_cast<uint64_t>(sinceBoot));
}

// Nothing when the process has gone.
std::optional<RawTesuTaskInitEvent> DescribeTask(const std::string& procRoot,
                                                 const std::string& pid, std::string* buffer) {
    RawTesuTaskInitEvent record{};
    record.header.type = RAW_EVENT_TASK_INIT;
    record.header.time = static_cast<int64_t>(GetSystemBootNanosencondsTime());
    record.pid = static_cast<int32_t>(ParseNumber(pid));
    const auto status =
        ReadProcStatus(ProcPath(procRoot, TesuBpfService::TASK_STATUS_TEMPLATE, pid), buffer);
    // A zombie's end was told before this service listened: it would stay in the table for ever.
    if (!status || status->isZombie) {
        return std::nullopt;
    }
    record.ppid = status->ppid;
    record.uid = status->uid;
    std::memcpy(record.comm, status->comm, sizeof(record.comm));
    record.rssFileSize = status->rssFileSize;
    record.rssAnonSize = status->rssAnonSize;
    record.rssShmemSize = status->rssShmemSize;
    record.rssSwapSize = status->swapSize;
    if (!ReadProcFile(ProcPath(procRoot, TesuBpfService::TASK_STAT_TEMPLATE, pid), buffer)) {
        return std::nullopt;
    }
    if (const auto stat = ParseProcStat(*buffer)) {
        record.threadNum = stat->threadNum;
        record.startTime = StartTime(*stat);
    }
    return record;
}

}  // namespace

int ScanTasks(const std::string& procRoot, const std::function<bool(RawTesuTaskInitEvent&)>& take) {
    int count = 0;
    std::string buffer;
    ForEachProcess(procRoot, [&](const std::string& pid) {
        auto record = DescribeTask(procRoot, pid, &buffer);
        if (!record) {
            TESU_LOGD(TESU_LOG_SERVICE,
                      "[TESUBPFDEBUG] [TesuBpfService][INIT] Task not exists, so we skip it");
            return true;
        }
        ++count;
        return take(*record);
    });
    return count;
}

// The records go the way of the kernel's: counted, forwarded, handled. The sum is counted once more
// at the end, so that the scan shows twice in the counters.
int TesuBpfService::initTaskInfo() {
    const int count = ScanTasks(PROC_FS_PATH, [this](RawTesuTaskInitEvent& record) {
        handleBpfRingBuffEvent(nullptr, &record, sizeof(record));
        return !stopped;
    });
    TesuBpfDataState::GetInstance()->RecordEvent(RAW_EVENT_TASK_INIT, count);
    return 0;
}

}  // namespace Tesu::Bpf
