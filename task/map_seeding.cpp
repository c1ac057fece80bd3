// SPDX-License-Identifier: Apache-2.0
#include "task/map_seeding.h"

#include <android-base/unique_fd.h>
#include <bpf/bpf.h>

#include <cerrno>
#include <cstring>

#include "proc/proc_files.h"
#include "proc/proc_text.h"
#include "records/contract.h"
#include "util/log.h"

namespace Tesu::Bpf {

namespace {

// A map of the programs. The kernel takes keys and values as they lie in memory, so the types must
// be the map's own.
template <class Key, class Value>
class PinnedMap {
  public:
    explicit PinnedMap(const char* name)
        : fd(bpf_obj_get((std::string(PIN_DIR) + "/" + name).c_str())) {}

    bool ok() const { return fd.ok(); }
    int descriptor() const { return fd.ok() ? fd.get() : -1; }

    // Creates or replaces. A failure is logged with this message, which ends in %s.
    void update(const Key& key, const Value& value, const char* failure) const {
        if (bpf_map_update_elem(fd.get(), &key, &value, BPF_ANY) != 0) {
            TESU_LOGE(TESU_LOG_SERVICE, failure, strerror(errno));
        }
    }

  private:
    android::base::unique_fd fd;
};

}  // namespace

void ScanOpenFds(const std::string& procRoot, const KeepScanning& keepScanning,
                 const std::function<void(const OpenFdCaller&)>& take) {
    std::string text;
    ForEachProcess(procRoot, [&](const std::string& pid) {
        if (!keepScanning()) {
            return false;
        }
        if (!ReadProcFile(ProcPath(procRoot, pid, "status"), &text)) {
            TESU_LOGD(TESU_LOG_SERVICE,
                      "[TESUBPFDEBUG] [TesuBpfService][INIT] FdINFO not exists, so we skip it");
            return true;
        }
        const std::string folder = ProcPath(procRoot, pid, "fd");
        const auto count = CountEntries(folder);
        if (!count) {
            TESU_LOGD(TESU_LOG_SERVICE,
                      "[TESUBPFDEBUG] [TesuBpfService][INIT-DMA] Task not exists, so we skip it "
                      "(%s)",
                      folder.c_str());
            return true;
        }
        OpenFdCaller caller{};
        caller.pid = static_cast<uint32_t>(ParseNumber(pid));
        caller.openFds = caller.reportedFds = static_cast<uint64_t>(*count);
        std::memcpy(caller.comm, ParseProcStatus(text).comm, sizeof(caller.comm));
        take(caller);
        return true;
    });
}

void ScanDmabufs(const std::string& procRoot, const KeepScanning& keepScanning,
                 const DmabufSink& sink) {
    std::string text;
    ForEachProcess(procRoot, [&](const std::string& name) {
        if (!keepScanning()) {
            return false;
        }
        const std::string path = ProcPath(procRoot, name, "maps");
        if (!ReadProcFile(path, &text)) {
            TESU_LOGD(TESU_LOG_SERVICE,
                      "[TESUBPFDEBUG] [TesuBpfService][INIT-DMA] Task not exists, so we skip it "
                      "(%s)",
                      path.c_str());
            return true;
        }
        const auto pid = static_cast<int32_t>(ParseNumber(name));
        uint64_t total = 0;
        ForEachLine(text, [&](std::string_view line) {
            if (const auto mapping = ParseDmabufMapping(line)) {
                sink.takeMapping(mapping->inode,
                                 {.pid = pid, .reserved = 0, .size = mapping->size});
                total += static_cast<uint64_t>(mapping->size);
            }
        });
        if (total != 0) {
            sink.takeTotal(pid, static_cast<int64_t>(total));
        }
        return true;
    });
}

int SeedOpenFdMap(const std::string& procRoot, const KeepScanning& keepScanning) {
    TESU_LOGE(TESU_LOG_SERVICE, "[TesuBpfService][INIT] update open_fd_caller_map !");
    const PinnedMap<uint32_t, OpenFdCaller> openFds(OPEN_FD_MAP);
    if (!openFds.ok()) {
        TESU_LOGE(TESU_LOG_SERVICE,
                  "[TesuBpfService][INIT] get map_TesuBpfDefineset_open_fd_caller_map(%d) failed! "
                  "%s",
                  openFds.descriptor(), strerror(errno));
        return -1;
    }
    ScanOpenFds(procRoot, keepScanning, [&](const OpenFdCaller& caller) {
        openFds.update(caller.pid, caller,
                       "[TesuBpfService][INIT] update open_fd_caller_map failed! %s");
    });
    return 0;
}

int SeedDmabufMaps(const std::string& procRoot, const KeepScanning& keepScanning) {
    const PinnedMap<uint64_t, DmabufAllocation> allocations(DMABUF_ALLOCATE_MAP);
    const PinnedMap<int32_t, int64_t> totals(DMABUF_SIZE_MAP);
    if (!allocations.ok() || !totals.ok()) {
        TESU_LOGE(
            TESU_LOG_SERVICE,
            "[TesuBpfService][INIT] get dmabufAllocateMap(%d) or dmabufSizeMap(%d) failed! %s",
            allocations.descriptor(), totals.descriptor(), strerror(errno));
        return -1;
    }
    ScanDmabufs(procRoot, keepScanning,
                {.takeMapping =
                     [&](uint64_t inode, const DmabufAllocation& allocation) {
                         allocations.update(
                             inode, allocation,
                             "[TesuBpfService][INIT] update dmabuf allocate map failed! %s");
                     },
                 .takeTotal =
                     [&](int32_t pid, int64_t total) {
                         totals.update(
                             pid, total,
                             "[TesuBpfService][INIT] update process - dmabuf size map failed! %s");
                     }});
    return 0;
}

}  // namespace Tesu::Bpf
