// SPDX-License-Identifier: Apache-2.0
//
// How many records were lost: found a ring buffer full, or a service that did not come to them.
#pragma once

#include <bpf/bpf.h>
#include <bpf/libbpf.h>

#include <cstdint>

#include "records/bpf_maps.h"

namespace Tesu::Bpf {

// The records lost since the objects were loaded, over all CPUs, from a ring's status map. 0 where
// the map cannot be read.
inline uint64_t ReadLostRecords(int statusMapFd) {
    const int cpus = libbpf_num_possible_cpus();
    uint64_t lost = 0;
    for (int cpu = 0; cpu < cpus; ++cpu) {
        const uint32_t key = RING_LOST_RECORDS + cpu;
        uint64_t ofCpu = 0;
        if (bpf_map_lookup_elem(statusMapFd, &key, &ofCpu) == 0) {
            lost += ofCpu;
        }
    }
    return lost;
}

// Adds records that the programs wrote and nobody will read, while no program writes. False where
// the map has no room for the count.
inline bool AddLostRecords(int statusMapFd, uint64_t count) {
    const uint32_t key = RING_LOST_RECORDS;  // of the first CPU
    uint64_t ofCpu = 0;
    if (bpf_map_lookup_elem(statusMapFd, &key, &ofCpu) != 0) {
        return false;
    }
    ofCpu += count;
    return bpf_map_update_elem(statusMapFd, &key, &ofCpu, BPF_ANY) == 0;
}

}  // namespace Tesu::Bpf
