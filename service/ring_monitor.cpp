// SPDX-License-Identifier: Apache-2.0
//
// The two monitors: each opens its ring buffer, has its programs enabled and drains it.
#include "service/ring_monitor.h"

#include <bpf/bpf.h>
#include <poll.h>
#include <signal.h>
#include <time.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>
#include <new>
#include <optional>

#include "diag/tesu_bpf_state.h"
#include "records/contract.h"
#include "service/dump_requests.h"
#include "service/lost_records.h"
#include "service/record_batch.h"
#include "service/ring_pace.h"
#include "service/ring_reader.h"
#include "service/ring_replacement.h"
#include "service/ring_wakeups.h"
#include "service/stale_entries.h"
#include "util/log.h"
#include "util/monotonic_clock.h"

namespace Tesu::Bpf {

namespace {

// Consecutive poll errors that end a monitor.
constexpr int MAX_POLL_ERRORS = 6;
constexpr std::chrono::seconds POLL_ERROR_PAUSE{1};
// Without a descriptor to wake it, a monitor looks for stop() this often.
constexpr int UNWAKEABLE_TIMEOUT_MS = 500;
// Counter kind of successful polls, beside the record types.
constexpr int POLL_COUNTER = 7;
// Records after which a reading is interrupted, for what is due beside it: a ring that never runs
// empty would put that off for ever. Some ten milliseconds.
constexpr uint64_t READING_LIMIT = 8192;
// What such a reading ends with.
constexpr int READING_INTERRUPTED = -EAGAIN;
// Bytes after which a 32-bit kernel's ring is replaced: half of what it can count.
constexpr uint64_t REPLACE_RING_AT = uint64_t{1} << 31;

}  // namespace

int TesuBpfService::eventMonitor() {
    return runMonitor({
        .which = RING_CORE,
        .name = "eventMonitor",
        .ringPath = TESU_PIN_DIR "/" TESU_CORE_MAP("ringbuf_map"),
        .currentPath = TESU_PIN_DIR "/" TESU_CORE_MAP("ringbuf_current"),
        .polledPath = TESU_PIN_DIR "/" TESU_CORE_MAP("ringbuf_polled"),
        .statusPath = TESU_PIN_DIR "/" TESU_CORE_MAP("ringbuf_status"),
        .stopMessage = "[TesuBpfService][eventMonitor] Stop Event Produce Thread...",
        .seedCore = &TesuBpfService::initTaskInfo,
        .seedNormal = &TesuBpfService::initFdBpfProg,
    });
}

int TesuBpfService::gpleventMonitor() {
    return runMonitor({
        .which = RING_GPL,
        .name = "gpleventMonitor",
        .ringPath = TESU_PIN_DIR "/" TESU_GPL_MAP("ringbuf_map"),
        .currentPath = TESU_PIN_DIR "/" TESU_GPL_MAP("ringbuf_current"),
        .polledPath = TESU_PIN_DIR "/" TESU_GPL_MAP("ringbuf_polled"),
        .statusPath = TESU_PIN_DIR "/" TESU_GPL_MAP("ringbuf_status"),
        .stopMessage = "[TesuBpfService][gpleventMonitor] Stop GPL Event Produce Thread...",
        .seedCore = &TesuBpfService::initDmabufBpfProg,
        .seedNormal = nullptr,
    });
}

int TesuBpfService::runMonitor(RingMonitor monitor) {
    std::atomic<RingMonitorState>& state = ringAccounts[monitor.which].monitor;
    state = RING_MONITOR_RUNNING;
    int result = -1;
    try {
        result = drainRing(monitor);
    } catch (const std::bad_alloc&) {
        TESU_LOGE(TESU_LOG_SERVICE, "[TesuBpfService][%s] no memory", monitor.name);
    }
    state = result == 0 ? RING_MONITOR_STOPPED : RING_MONITOR_FAILED;
    if (result != 0 && !monitor.hasNoPins) {
        requestRestart("a ring buffer is not read any more; the log says why");
    }
    return result;
}

int TesuBpfService::drainRing(RingMonitor& monitor) {
    const auto fail = [&](const char* format, int mapFd) {
        TESU_LOGE(TESU_LOG_SERVICE, format, monitor.name, strerror(errno), mapFd);
        monitor.hasNoPins = mapFd < 0 && errno == ENOENT;
        errno = 0;
        return -1;
    };
    InstallDumpSignalHandlers();
    android::base::unique_fd& ringFd = ringbufMapFd[monitor.which];
    ringFd.reset(bpf_obj_get(monitor.ringPath));
    if (!ringFd.ok()) {
        return fail("[TesuBpfService][%s] TESUBPF: get ringbuf failed: %s, map fd: %d",
                    ringFd.get());
    }
    const int statusFd = bpf_obj_get(monitor.statusPath);
    if (statusFd < 0) {
        return fail("[TesuBpfService][%s] TESUBPF: get ringbuf status map failed: %s, map fd: %d",
                    statusFd);
    }
    {
        MutexLock lock(servicelock);
        statusMapFd[monitor.which].reset(statusFd);
    }
    monitor.reader = RingReader::Open(ringFd.get(), onRingRecord, &monitor);
    if (monitor.reader == nullptr) {
        return fail("[TesuBpfService][%s] TESUBPF: Set up ringbuf failed: %s, ringbufMap fd: %d",
                    ringFd.get());
    }
    ringAccounts[monitor.which].size = monitor.reader->size();
    monitor.lossWatch = LossWatch(monitor.reader->size());
    monitor.lostSeen = monitor.lostLogged = countLosses(monitor);
    const std::optional<bool> has32BitPositions = IsRingPosition32Bits();
    if (!has32BitPositions) {
        TESU_LOGW(TESU_LOG_SERVICE,
                  "[TesuBpfService][%s] positions of the ring are taken for 32 bits wide: %s",
                  monitor.name, strerror(errno));
    }
    RingReplacement replacement(
        monitor.ringPath, monitor.currentPath,
        has32BitPositions.value_or(true) ? REPLACE_RING_AT : RingReplacement::NEVER);
    dropBacklog(monitor, replacement);
    // Each class is switched on before the state it changes is read, so that a change made
    // meanwhile waits in the ring buffer and is applied after.
    enableCoreBpf(monitor.which, true);
    (this->*monitor.seedCore)();
    enableNormalBpf(monitor.which, true);
    if (monitor.seedNormal != nullptr) {
        (this->*monitor.seedNormal)();
    }
    return pollRing(monitor, replacement);
}

// A service that ran before left its classes on, and perhaps records that it did not come to: of
// tasks that have gone since, or whose ids are in use again. What lives now is read from /proc, so
// the ring starts empty, and what was in it counts as lost.
void TesuBpfService::dropBacklog(RingMonitor& monitor, RingReplacement& replacement) {
    enableCoreBpf(monitor.which, false);
    enableNormalBpf(monitor.which, false);
    monitor.reader->consume();
    ClearStaleEntries(monitor.which);
    if (replacement.isEver()) {
        // The one that is there may have been read to where the kernel stops.
        replaceRing(monitor, replacement);
    }
    monitor.isDropping = false;
    if (monitor.dropped != 0) {
        TESU_LOGW(TESU_LOG_SERVICE,
                  "[TesuBpfService][%s] %llu records from before the start were dropped",
                  monitor.name, static_cast<unsigned long long>(monitor.dropped));
        if (!AddLostRecords(statusMap(monitor.which), monitor.dropped)) {
            monitor.uncounted = monitor.dropped;
        }
    }
}

void TesuBpfService::replaceRing(RingMonitor& monitor, RingReplacement& replacement) {
    if (replacement.replace(&monitor.reader, onRingRecord, &monitor)) {
        // The descriptor would keep the old ring's memory.
        ringbufMapFd[monitor.which].reset(bpf_obj_get(monitor.ringPath));
        monitor.lossWatch = LossWatch(monitor.reader->size());
        if (monitor.mendAt) {
            monitor.mendAt = 0;
        }
        TESU_LOGI(TESU_LOG_SERVICE, "[TesuBpfService][%s] the ring buffer was replaced",
                  monitor.name);
    } else {
        TESU_LOGW(TESU_LOG_SERVICE, "[TesuBpfService][%s] the ring buffer cannot be replaced: %s",
                  monitor.name, strerror(errno));
    }
}

int TesuBpfService::pollRing(RingMonitor& monitor, RingReplacement& replacement) {
    RingPace pace(monitor.reader->size());
    RingWakeups wakeups(monitor.polledPath);
    RingAccount& account = ringAccounts[monitor.which];
    // A service that was killed may have left word that it comes by itself. What was written until
    // `wakeups` took that back woke nobody, and nothing behind it would: so it is read first.
    RingPace::Pause pause{.rest = std::chrono::nanoseconds(0)};
    int errors = 0;
    lookForLosses(monitor);
    while (running) {
        int result = pause.rest ? restFor(*pause.rest) : waitForRecords(monitor);
        int error = errno;
        if (result >= 0) {
            const RecordBatch batch;
            const uint64_t begin = monitor.reader->position();
            account.noteWaiting(monitor.reader->waiting());
            result = monitor.reader->consume();
            error = errno;  // what follows makes calls of its own
            account.taken.store(monitor.taken, std::memory_order_relaxed);
            if (result == READING_INTERRUPTED) {
                result = 0;
                pause = pace.afterInterruption();
            } else {
                pause =
                    pace.after(monitor.reader->position() - begin, monitor.reader->waiting() == 0);
            }
            wakeups.setWanted(pause.wantsWakeup);
        }
        // A poll that stop() woke or cut short is no error, and none that counts.
        if (!running) {
            break;
        }
        lookForLosses(monitor);
        if (result >= 0) {
            TesuBpfDataState::GetInstance()->RecordEvent(POLL_COUNTER, 1);
            checkBpfRingBuffStatus(monitor.which, false);
            errors = 0;
            if (replacement.isDue(*monitor.reader)) {
                replaceRing(monitor, replacement);
            }
            mendTable(monitor);
            continue;
        }
        checkBpfRingBuffStatus(monitor.which, true);
        if (error == EINTR) {
            continue;
        }
        TESU_LOGE(TESU_LOG_SERVICE, "[TesuBpfService][%s] TESUBPF: ret %d .Error ring buf poll. %s",
                  monitor.name, result, strerror(error));
        errno = 0;
        sleepUnlessStopped(POLL_ERROR_PAUSE);
        if (++errors >= MAX_POLL_ERRORS) {
            return -1;
        }
    }
    TESU_LOGW(TESU_LOG_SERVICE, "%s", monitor.stopMessage);
    return 0;
}

// Less when the service stops; a signal waits for the end, because RingPace counts on a whole rest.
// Always 0.
int TesuBpfService::restFor(std::chrono::nanoseconds duration) {
    if (duration.count() > 0) {
        pollfd stop = {.fd = stopFd.get(), .events = POLLIN, .revents = 0};
        const timespec limit = {.tv_sec = 0, .tv_nsec = static_cast<long>(duration.count())};
        sigset_t signals;
        sigfillset(&signals);
        ppoll(&stop, 1, &limit, &signals);
    }
    return 0;
}

// Until the ring has records or may have lost some, the table is to be mended or the service stops:
// negative on failure. libbpf's own wait cannot be woken by stop(), so its descriptor is waited for
// together with stop()'s.
int TesuBpfService::waitForRecords(const RingMonitor& monitor) {
    EventManager::GetInstance()->sendLater();
    pollfd waited[] = {
        {.fd = monitor.reader->epollFd(), .events = POLLIN, .revents = 0},
        {.fd = stopFd.get(), .events = POLLIN, .revents = 0},
        {.fd = monitor.which == RING_CORE ? mendingEvent.get() : -1,
         .events = POLLIN,
         .revents = 0},
    };
    const int untilLook =
        monitor.lossWatch.timeout(monitor.reader->written(), MonotonicNanoseconds());
    const bool isUnwakeable = untilLook < 0 && !stopFd.ok();
    return ::poll(waited, std::size(waited), isUnwakeable ? UNWAKEABLE_TIMEOUT_MS : untilLook);
}

int TesuBpfService::onRingRecord(void* monitor, void* data, size_t size) {
    auto& owner = *static_cast<RingMonitor*>(monitor);
    int result = 0;
    if (owner.isDropping) {
        ++owner.dropped;
    } else {
        ++owner.taken;
        try {
            result = handleBpfRingBuffEvent(nullptr, data, static_cast<unsigned>(size));
        } catch (const std::bad_alloc&) {
            // Lost to the table or to clients, and told as such at once.
            ++owner.uncounted;
            owner.lossWatch = LossWatch(owner.reader->size());
        }
    }
    if (result < 0) {
        return result;
    }
    // A ring that never runs empty would keep the poll, and with it stop(), waiting for ever.
    if (!instance.load(std::memory_order_relaxed)->running) {
        return -ECANCELED;
    }
    return !owner.isDropping && owner.taken % READING_LIMIT == 0 ? READING_INTERRUPTED : 0;
}

}  // namespace Tesu::Bpf
