// SPDX-License-Identifier: Apache-2.0
//
// The status map of a ring buffer: which classes of programs may write, and whether it was full.
#include <bpf/bpf.h>

#include <ctime>

#include "records/bpf_maps.h"
#include "service/tesu_bpf_service.h"
#include "util/log.h"

namespace Tesu::Bpf {

namespace {

// Least seconds between two looks at the full flag while polls succeed.
constexpr int64_t STATUS_CHECK_INTERVAL = 30;

bool IsRing(int which) {
    return which >= 0 && which < RING_COUNT;
}

// What cannot be read counts as 0.
uint64_t ReadStatus(int mapFd, uint32_t key) {
    uint64_t value = 0;
    return bpf_map_lookup_elem(mapFd, &key, &value) == 0 ? value : 0;
}

bool WriteStatus(int mapFd, uint32_t key, uint64_t value) {
    return bpf_map_update_elem(mapFd, &key, &value, BPF_ANY) == 0;
}

}  // namespace

int TesuBpfService::statusMap(int which) {
    MutexLock lock(servicelock);
    return statusMapFd[which].get();
}

RingStatus TesuBpfService::ringStatus(int which) const {
    return IsRing(which) ? ringAccounts[which].read(which) : RingStatus{};
}

bool TesuBpfService::checkBpfRingBuffStatus(int which, bool force) {
    if (!IsRing(which)) {
        return false;
    }
    const int64_t now = time(nullptr);
    if (!force && now - lastStatusCheck[which] < STATUS_CHECK_INTERVAL) {
        return true;
    }
    lastStatusCheck[which] = now;
    const int mapFd = statusMap(which);
    const uint64_t available = ReadStatus(mapFd, RING_AVAIL_DATA);
    const uint64_t flags = ReadStatus(mapFd, RING_STATUS_FLAGS);
    if ((flags & FLAG_RINGBUF_FULL) == 0) {
        return true;
    }
    TESU_LOGW(TESU_LOG_SERVICE, "[TesuBpfService][checkBpfRingBuffStatus] bpf ringbuff full!");
    TESU_LOGW(TESU_LOG_SERVICE,
              "[TesuBpfService][checkBpfRingBuffStatus] avail data: %llu, ringbuf size: %llu, cons "
              "pos: %llu, prod pos: %llu",
              static_cast<unsigned long long>(available),
              static_cast<unsigned long long>(ReadStatus(mapFd, RING_SIZE)),
              static_cast<unsigned long long>(ReadStatus(mapFd, RING_CONS_POS)),
              static_cast<unsigned long long>(ReadStatus(mapFd, RING_PROD_POS)));
    WriteStatus(mapFd, RING_STATUS_FLAGS, flags & ~uint64_t{FLAG_RINGBUF_FULL});
    return false;
}

bool TesuBpfService::switchStatusFlag(int which, uint64_t flag, bool enable) {
    if (!IsRing(which)) {
        return false;
    }
    MutexLock lock(servicelock);
    const int mapFd = statusMapFd[which].get();
    const uint64_t flags = ReadStatus(mapFd, RING_STATUS_FLAGS);
    return WriteStatus(mapFd, RING_STATUS_FLAGS, enable ? flags | flag : flags & ~flag);
}

bool TesuBpfService::enableCoreBpf(int which, bool enable) {
    return switchStatusFlag(which, FLAG_CORE_ENABLED, enable);
}

bool TesuBpfService::enableNormalBpf(int which, bool enable) {
    return switchStatusFlag(which, FLAG_NORMAL_ENABLED, enable);
}

}  // namespace Tesu::Bpf
