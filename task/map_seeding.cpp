// SPDX-License-Identifier: Apache-2.0
#include "task/map_seeding.h"

#include <bpf/bpf.h>

#include <cerrno>
#include <cstring>

#include "proc/proc_text.h"
#include "records/contract.h"
#include "util/log.h"

namespace Tesu::Bpf {

namespace {

using android::base::unique_fd;

// Creates or replaces. The kernel takes keys and values as they lie in memory, so the types must be
// the map's own. A failure is logged with this message, which ends in %s.
template <class Key, class Value>
void Update(const unique_fd& map, const Key& key, const Value& value, const char* failure) {
    if (bpf_map_update_elem(map.get(), &key, &value, BPF_ANY) != 0) {
        TESU_LOGE(TESU_LOG_SERVICE, failure, strerror(errno));
    }
}

// Of a process that goes while it is read.
void LogUnreadable(const std::string& path) {
    TESU_LOGD(TESU_LOG_SERVICE,
              "[TESUBPFDEBUG] [TesuBpfService][INIT-DMA] Task not exists, so we skip it (%s)",
              path.c_str());
}

}  // namespace

unique_fd OpenPinnedMap(const char* name) {
    const int fd = bpf_obj_get((std::string(PIN_DIR) + "/" + name).c_str());
    return unique_fd(fd < 0 ? -1 : fd);
}

void ScanOpenFds(const std::string& procRoot, const KeepScanning& keepScanning,
                 const std::function<void(const OpenFdCaller&)>& take) {
    std::string text;
    ForEachProcess(procRoot, keepScanning, [&](const std::string& pid) {
        if (!ReadProcFile(ProcPath(procRoot, pid, "status"), &text)) {
            TESU_LOGD(TESU_LOG_SERVICE,
                      "[TESUBPFDEBUG] [TesuBpfService][INIT] FdINFO not exists, so we skip it");
            return;
        }
        const std::string folder = ProcPath(procRoot, pid, "fd");
        const auto count = CountEntries(folder);
        if (!count) {
            LogUnreadable(folder);
            return;
        }
        OpenFdCaller caller{};
        caller.pid = static_cast<uint32_t>(ParseNumber(pid));
        caller.openFds = caller.reportedFds = static_cast<uint64_t>(*count);
        std::memcpy(caller.comm, ParseProcStatus(text).comm, sizeof(caller.comm));
        take(caller);
    });
}

void ScanDmabufs(const std::string& procRoot, const KeepScanning& keepScanning,
                 const std::function<void(uint64_t inode, const DmabufAllocation&)>& takeMapping,
                 const std::function<void(int32_t pid, int64_t total)>& takeTotal) {
    std::string text;
    ForEachProcess(procRoot, keepScanning, [&](const std::string& name) {
        const std::string path = ProcPath(procRoot, name, "maps");
        if (!ReadProcFile(path, &text)) {
            LogUnreadable(path);
            return;
        }
        const auto pid = static_cast<int32_t>(ParseNumber(name));
        uint64_t total = 0;
        ForEachLine(text, [&](std::string_view line) {
            if (const auto mapping = ParseDmabufMapping(line)) {
                takeMapping(mapping->inode, {.pid = pid, .reserved = 0, .size = mapping->size});
                total += static_cast<uint64_t>(mapping->size);
            }
        });
        if (total != 0) {
            takeTotal(pid, static_cast<int64_t>(total));
        }
    });
}

int SeedOpenFdMap(const std::string& procRoot, const KeepScanning& keepScanning) {
    TESU_LOGE(TESU_LOG_SERVICE, "[TesuBpfService][INIT] update open_fd_caller_map !");
    const unique_fd openFds = OpenPinnedMap(OPEN_FD_MAP);
    if (!openFds.ok()) {
        TESU_LOGE(TESU_LOG_SERVICE,
                  "[TesuBpfService][INIT] get map_TesuBpfDefineset_open_fd_caller_map(%d) failed! "
                  "%s",
                  openFds.get(), strerror(errno));
        return -1;
    }
    ScanOpenFds(procRoot, keepScanning, [&](const OpenFdCaller& caller) {
        Update(openFds, caller.pid, caller,
               "[TesuBpfService][INIT] update open_fd_caller_map failed! %s");
    });
    return 0;
}

int SeedDmabufMaps(const std::string& procRoot, const KeepScanning& keepScanning) {
    const unique_fd allocations = OpenPinnedMap(DMABUF_ALLOCATE_MAP);
    const unique_fd totals = OpenPinnedMap(DMABUF_SIZE_MAP);
    if (!allocations.ok() || !totals.ok()) {
        TESU_LOGE(
            TESU_LOG_SERVICE,
            "[TesuBpfService][INIT] get dmabufAllocateMap(%d) or dmabufSizeMap(%d) failed! %s",
            allocations.get(), totals.get(), strerror(errno));
        return -1;
    }
    ScanDmabufs(
        procRoot, keepScanning,
        [&](uint64_t inode, const DmabufAllocation& allocation) {
            Update(allocations, inode, allocation,
                   "[TesuBpfService][INIT] update dmabuf allocate map failed! %s");
        },
        [&](int32_t pid, int64_t total) {
            Update(totals, pid, total,
                   "[TesuBpfService][INIT] update process - dmabuf size map failed! %s");
        });
    return 0;
}

}  // namespace Tesu::Bpf
