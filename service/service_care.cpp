// SPDX-License-Identifier: Apache-2.0
//
// What is looked after from time to time, off the records' path.
#include <bpf/bpf.h>
#include <sys/eventfd.h>

#include "records/contract.h"
#include "service/tesu_bpf_service.h"
#include "task/map_seeding.h"
#include "util/log.h"

namespace Tesu::Bpf {

namespace {

// A number that no other map has had since the machine was booted; 0 for what is no map.
uint32_t MapId(int fd) {
    bpf_map_info info = {};
    uint32_t size = sizeof(info);
    return fd >= 0 && bpf_obj_get_info_by_fd(fd, &info, &size) == 0 ? info.id : 0;
}

}  // namespace

void TesuBpfService::care(std::chrono::seconds interval) {
    while (!sleepUnlessStopped(interval)) {
        if (hasOtherPins()) {
            requestRestart("other eBPF programs were pinned than those in use");
            return;
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

void TesuBpfService::requestRestart(const std::string& reason) {
    TESU_LOGE(TESU_LOG_SERVICE, "[TesuBpfService][requestRestart] %s", reason.c_str());
    {
        MutexLock lock(servicelock);
        reasonToRestart = reason;
    }
    eventfd_write(restartEvent.get(), 1);
}

std::string TesuBpfService::restartReason() {
    MutexLock lock(servicelock);
    return reasonToRestart;
}

}  // namespace Tesu::Bpf
