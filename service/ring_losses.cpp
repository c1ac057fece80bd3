// SPDX-License-Identifier: Apache-2.0
//
// What a ring lost is noticed within a second. Clients are told each time; it is logged at once,
// then at most every 30 seconds.
#include <new>

#include "records/notification.h"
#include "service/lost_records.h"
#include "service/ring_monitor.h"
#include "util/log.h"
#include "util/monotonic_clock.h"

namespace Tesu::Bpf {

namespace {

constexpr int64_t LOG_INTERVAL = 30 * NANOSECONDS_PER_SECOND;

}  // namespace

uint64_t TesuBpfService::countLosses(const RingMonitor& monitor) {
    return ReadLostRecords(statusMap(monitor.which)) + monitor.uncounted;
}

void TesuBpfService::lookForLosses(RingMonitor& monitor) {
    const int64_t now = MonotonicNanoseconds();
    if (!monitor.lossWatch.isDue(monitor.reader->written(), now)) {
        return;
    }
    monitor.lossWatch.noteLook(monitor.reader->position(), now);
    const uint64_t lost = countLosses(monitor);
    RingAccount& account = ringAccounts[monitor.which];
    account.lost.store(lost, std::memory_order_relaxed);
    if (lost == monitor.lostSeen) {
        return;
    }
    const RecordsLostNotification notification{
        .header = {.type = NOTIFICATION_RECORDS_LOST, .padding = 0, .time = now},
        .ring = monitor.which,
        .padding = 0,
        .lost = lost - monitor.lostSeen,
        .total = lost};
    try {
        EventManager::GetInstance()->AppendEvent(reinterpret_cast<const char*>(&notification),
                                                 sizeof(notification));
    } catch (const std::bad_alloc&) {
        monitor.lossWatch = LossWatch(monitor.reader->size());  // the next look tells of them
        return;
    }
    monitor.lostSeen = lost;
    if (now - monitor.timeOfLossLog >= LOG_INTERVAL) {
        TESU_LOGW(TESU_LOG_SERVICE, "[TesuBpfService][%s] %llu records were lost, %llu in all",
                  monitor.name, static_cast<unsigned long long>(lost - monitor.lostLogged),
                  static_cast<unsigned long long>(lost));
        monitor.lostLogged = lost;
        monitor.timeOfLossLog = now;
    }
}

}  // namespace Tesu::Bpf
