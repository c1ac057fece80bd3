// SPDX-License-Identifier: Apache-2.0
#include "service/stale_entries.h"

#include <bpf/bpf.h>

#include <cerrno>
#include <cstdint>

#include "records/contract.h"
#include "service/tesu_bpf_service.h"
#include "task/map_seeding.h"

namespace Tesu::Bpf {

namespace {

using android::base::unique_fd;

void EmptyMap(const char* name) {
    const unique_fd map = OpenPinnedMap(name);
    uint64_t key = 0;  // keys have 4 or 8 bytes
    while (bpf_map_get_next_key(map.get(), nullptr, &key) == 0 &&
           (bpf_map_delete_elem(map.get(), &key) == 0 || errno == ENOENT)) {
    }
}

// The programs count these entries, so each stays until its task removes it. One that is all 0
// makes no record.
void VoidPendingCreates() {
    const unique_fd map = OpenPinnedMap(TESU_CORE_MAP("task_create_pending"));
    constexpr char NOTHING[64] = {};  // a value, and more
    uint32_t tid = 0;
    for (const uint32_t* last = nullptr; bpf_map_get_next_key(map.get(), last, &tid) == 0;
         last = &tid) {
        bpf_map_update_elem(map.get(), &tid, NOTHING, BPF_EXIST);
    }
}

}  // namespace

void ClearStaleEntries(int ring) {
    if (ring == RING_CORE) {
        VoidPendingCreates();
        EmptyMap(TESU_CORE_MAP("process_exit_written"));
        EmptyMap(TESU_CORE_MAP("process_mm"));
        EmptyMap(TESU_CORE_MAP("foreign_mm_sizes"));
        EmptyMap(OPEN_FD_MAP);
    } else {
        EmptyMap(DMABUF_ALLOCATE_MAP);
        EmptyMap(DMABUF_SIZE_MAP);
    }
}

}  // namespace Tesu::Bpf
