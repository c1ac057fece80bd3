// SPDX-License-Identifier: Apache-2.0
#include "service/ring_wakeups.h"

#include <android-base/unique_fd.h>
#include <bpf/bpf.h>
#include <sys/mman.h>
#include <unistd.h>

namespace Tesu::Bpf {

RingWakeups::RingWakeups(const char* polledPath) {
    const android::base::unique_fd map(bpf_obj_get(polledPath));
    if (!map.ok()) {
        return;
    }
    void* const page = mmap(nullptr, static_cast<size_t>(sysconf(_SC_PAGESIZE)),
                            PROT_READ | PROT_WRITE, MAP_SHARED, map.get(), 0);
    if (page != MAP_FAILED) {
        polled = static_cast<uint32_t*>(page);
        setWanted(true);
    }
}

RingWakeups::~RingWakeups() {
    if (polled != nullptr) {
        setWanted(true);
        munmap(polled, static_cast<size_t>(sysconf(_SC_PAGESIZE)));
    }
}

void RingWakeups::setWanted(bool isWanted) {
    if (polled != nullptr) {
        __atomic_store_n(polled, isWanted ? 0U : 1U, __ATOMIC_SEQ_CST);
    }
}

}  // namespace Tesu::Bpf
