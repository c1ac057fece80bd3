// SPDX-License-Identifier: Apache-2.0
//
// What is looked after from time to time, off the records' path.
#include <bpf/bpf.h>
#include <sys/eventfd.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <new>
#include <utility>

#include "records/contract.h"
#include "service/record_batch.h"
#include "service/ring_monitor.h"
#include "task/map_seeding.h"
#include "util/log.h"

namespace Tesu::Bpf {

namespace {

using std::chrono::ceil;
using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;

constexpr seconds LONGEST_SLEEP{86400};
// Seconds of its life after which a process's fork is through for certain.
constexpr seconds FORK_TIME{10};

// A number that no other map has had since the machine was booted; 0 for what is no map.
uint32_t MapId(int fd) {
    bpf_map_info info = {};
    uint32_t size = sizeof(info);
    return fd >= 0 && bpf_obj_get_info_by_fd(fd, &info, &size) == 0 ? info.id : 0;
}

// Records carry the ids of the initial namespace: the /proc of another tells nothing of them.
bool IsInInitialPidNamespace() {
    constexpr ino_t INITIAL = 0xEFFFFFFC;  // fixed by the kernel
    struct stat own = {};
    return stat("/proc/self/ns/pid", &own) != 0 || own.st_ino == INITIAL;
}

// Something that is due time and again; by default never.
class Appointment {
  public:
    explicit Appointment(seconds interval = seconds(0)) : interval(interval) {}

    milliseconds left() const {
        return interval == seconds(0) ? milliseconds(LONGEST_SLEEP)
                                      : ceil<milliseconds>(due - steady_clock::now());
    }
    // True once each time.
    bool isDue() {
        const bool isIt = left() <= milliseconds(0);
        due = isIt ? steady_clock::now() + interval : due;
        return isIt;
    }

  private:
    seconds interval;
    steady_clock::time_point due = steady_clock::now() + interval;
};

}  // namespace

void TesuBpfService::care(seconds pinInterval, seconds tableInterval) {
    Appointment pins(pinInterval);
    Appointment table(IsInInitialPidNamespace() ? tableInterval : seconds(0));
    const auto untilNext = [&] { return std::min(pins.left(), table.left()); };
    while (!sleepUnlessStopped(untilNext())) {
        try {
            if (pins.isDue() && hasOtherPins()) {
                requestRestart("other eBPF programs were pinned than those in use");
                pins = Appointment();
            }
            if (table.isDue()) {
                compareTable(tableInterval);
            }
        } catch (const std::bad_alloc&) {
            // The next look finds what this one would have.
            TESU_LOGW(TESU_LOG_SERVICE, "[TesuBpfService][care] no memory");
        }
    }
}

// Goes by the status maps, which a ring's replacement leaves alone. Pins that were only removed are
// no reason: what is attached goes on.
bool TesuBpfService::hasOtherPins() {
    constexpr const char* STATUS_MAPS[RING_COUNT] = {CORE_STATUS_MAP, GPL_STATUS_MAP};
    for (const int which : {RING_CORE, RING_GPL}) {
        const uint32_t held = MapId(statusMap(which));
        const bool hadNone = ringAccounts[which].monitor == RING_MONITOR_FAILED;
        const uint32_t pinned = MapId(OpenPinnedMap(STATUS_MAPS[which]).get());
        if (pinned != 0 && pinned != held && (held != 0 || hadNone)) {
            return true;
        }
    }
    return false;
}

void TesuBpfService::compareTable(seconds interval) {
    // What was found last may not be put right yet, or nobody is there to do it.
    if (isMendingDue.load(std::memory_order_acquire) ||
        ringAccounts[RING_CORE].monitor != RING_MONITOR_RUNNING) {
        return;
    }
    const uint64_t lost = ringAccounts[RING_CORE].lost;
    // The create records that the programs have still to write; only ours keep such a map.
    const auto pendingCreates = OpenPinnedMap(TESU_CORE_MAP("task_create_pending"));
    const auto isPending = [&pendingCreates](int32_t pid) {
        char pending[64];  // a value, and more
        return bpf_map_lookup_elem(pendingCreates.get(), &pid, pending) == 0;
    };
    TableDifferences differences =
        CompareTableWithProc(TesuTaskManager::GetInstance(),
                             {.procRoot = PROC_FS_PATH,
                              .minAge = std::min(interval, FORK_TIME).count(),
                              .withStarts = std::exchange(lostAtComparison, lost) != lost,
                              .isCreatePending = isPending},
                             [this] { return !stopped; });
    if (!differences.isEmpty()) {
        mending = TableMending(std::move(differences));
        isMendingDue.store(true, std::memory_order_release);
        eventfd_write(mendingEvent.get(), 1);
    }
}

void TesuBpfService::mendTable(RingMonitor& monitor) {
    if (monitor.which != RING_CORE || !isMendingDue.load(std::memory_order_acquire)) {
        return;
    }
    eventfd_t count = 0;
    eventfd_read(mendingEvent.get(), &count);
    // What was written before the comparison ended comes first.
    if (!monitor.mendAt) {
        monitor.mendAt = monitor.reader->written();
    }
    if (monitor.reader->position() < *monitor.mendAt) {
        return;
    }
    const RecordBatch batch;
    bool isMore = false;
    try {
        isMore = mending.applySome(TesuTaskManager::GetInstance(), PROC_FS_PATH,
                                   [](RawTesuTaskInitEvent& record) {
                                       handleBpfRingBuffEvent(nullptr, &record, sizeof(record));
                                   });
    } catch (const std::bad_alloc&) {
        // What is left is found again by the next comparison.
        TESU_LOGW(TESU_LOG_SERVICE, "[TesuBpfService][mendTable] no memory");
    }
    if (isMore) {
        eventfd_write(mendingEvent.get(), 1);
        return;
    }
    if (mending.removed() + mending.added() > 0) {
        TESU_LOGW(TESU_LOG_SERVICE,
                  "[TesuBpfService][mendTable] records of processes were lost: %zu that have ended "
                  "were removed, %zu that live were read from /proc",
                  mending.removed(), mending.added());
    }
    monitor.mendAt.reset();
    isMendingDue.store(false, std::memory_order_release);
}

void TesuBpfService::requestRestart(const char* reason) {
    TESU_LOGE(TESU_LOG_SERVICE, "[TesuBpfService][requestRestart] %s", reason);
    {
        MutexLock lock(servicelock);
        reasonToRestart = *reasonToRestart == '\0' ? reason : reasonToRestart;
    }
    eventfd_write(restartEvent.get(), 1);
}

std::string TesuBpfService::restartReason() {
    MutexLock lock(servicelock);
    return reasonToRestart;
}

}  // namespace Tesu::Bpf
