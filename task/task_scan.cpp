// SPDX-License-Identifier: Apache-2.0
#include "task/task_scan.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <optional>

#include "proc/proc_text.h"
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

}  // namespace

std::optional<RawTesuTaskInitEvent> ReadTask(const std::string& procRoot, const std::string& pid,
                                             std::string* text) {
    RawTesuTaskInitEvent record{};
    record.header.type = RAW_EVENT_TASK_INIT;
    record.header.time = static_cast<int64_t>(GetSystemBootNanosencondsTime());
    record.pid = static_cast<int32_t>(ParseNumber(pid));
    if (!ReadProcFile(ProcPath(procRoot, pid, "status"), text)) {
        return std::nullopt;
    }
    const ProcStatus status = ParseProcStatus(*text);
    if (status.isZombie) {
        return std::nullopt;
    }
    record.ppid = status.ppid;
    record.uid = status.uid;
    std::memcpy(record.comm, status.comm, sizeof(record.comm));
    record.rssFileSize = status.rss[RSS_FILE];
    record.rssAnonSize = status.rss[RSS_ANON];
    record.rssShmemSize = status.rss[RSS_SHMEM];
    record.rssSwapSize = status.rss[RSS_SWAP];
    if (!ReadProcFile(ProcPath(procRoot, pid, "stat"), text)) {
        return std::nullopt;
    }
    if (const auto stat = ParseProcStatAtBlanks(*text)) {
        record.threadNum = stat->threadNum;
        record.startTime = StartTime(*stat);
    }
    return record;
}

int ScanTasks(const std::string& procRoot, const KeepScanning& keepScanning,
              const std::function<void(RawTesuTaskInitEvent&)>& take) {
    int count = 0;
    std::string text;
    ForEachProcess(procRoot, keepScanning, [&](const std::string& pid) {
        if (auto record = ReadTask(procRoot, pid, &text)) {
            ++count;
            take(*record);
        } else {
            TESU_LOGD(TESU_LOG_SERVICE,
                      "[TESUBPFDEBUG] [TesuBpfService][INIT] Task not exists, so we skip it");
        }
    });
    return count;
}

int ReadProcessInfo(const std::string& procRoot, int32_t pid, UpdateProcessExdata* out) {
    std::string text;
    if (!ReadProcFile(ProcPath(procRoot, std::to_string(pid), "status"), &text)) {
        TESU_LOGW(TESU_LOG_SERVICE, "[TesuBpfService][GPI] Task not exists, errno info: %s",
                  strerror(errno));
        return -1;
    }
    const ProcStatus status = ParseProcStatus(text);
    out->pid = pid;
    out->ppid = status.ppid;
    std::memcpy(out->comm, status.comm, sizeof(out->comm));
    return 0;
}

}  // namespace Tesu::Bpf
