/* SPDX-License-Identifier: Apache-2.0 OR GPL-2.0-only
 *
 * Who holds how much dma-buf memory. A dma-buf belongs to the process that made it, or, for those
 * that are older than the service, to the process that the service found mapping it. Every change
 * emits the owner's total. Buffers may outlive their owner: the total goes with the process, and
 * what is released after that changes nothing.
 */
#ifndef TESUBPF_BPF_DMABUF_H
#define TESUBPF_BPF_DMABUF_H

#include "bpf/counters.h"
#include "bpf/current_task.h"
#include "bpf/ring.h"

#define DMABUF_ALLOCATIONS 16384
#define DMABUF_PROCESSES 4096

struct {
    __uint(type, BPF_MAP_TYPE_HASH);
    __uint(max_entries, DMABUF_ALLOCATIONS);
    __type(key, uint64_t); /* inode number of the dma-buf */
    __type(value, struct DmabufAllocation);
} dmabuf_allocate_map SEC(".maps");

struct {
    __uint(type, BPF_MAP_TYPE_HASH);
    __uint(max_entries, DMABUF_PROCESSES);
    __type(key, int32_t);   /* process id */
    __type(value, int64_t); /* bytes */
} dmabuf_size_map SEC(".maps");

static __always_inline void WriteDmabufTotal(int32_t pid, int64_t total) {
    struct RawDmabufAllocEvent* record = ReserveRecord(sizeof(*record), RAW_EVENT_DMABUF_SIZE);
    if (record == NULL) {
        return;
    }
    record->pid = pid;
    record->padding = 0;
    record->size = total;
    SubmitRecord(record);
}

/* A buffer that finds no room in the maps is a lost record. */
static __always_inline void AddDmabuf(uint64_t inode, int32_t pid, int64_t size) {
    const struct DmabufAllocation allocation = {.pid = pid, .size = size};
    if (bpf_map_update_elem(&dmabuf_allocate_map, &inode, &allocation, BPF_ANY) != 0) {
        CountLostRecord();
        return;
    }
    const int64_t none = 0;
    bpf_map_update_elem(&dmabuf_size_map, &pid, &none, BPF_NOEXIST);
    int64_t* total = bpf_map_lookup_elem(&dmabuf_size_map, &pid);
    if (total == NULL) {
        CountLostRecord();
        return;
    }
    AddTo((uint64_t*)total, size);
    WriteDmabufTotal(pid, *(volatile int64_t*)total);
}

static __always_inline void RemoveDmabuf(uint64_t inode) {
    const struct DmabufAllocation* found = bpf_map_lookup_elem(&dmabuf_allocate_map, &inode);
    if (found == NULL) {
        return;
    }
    const struct DmabufAllocation allocation = *found;
    if (bpf_map_delete_elem(&dmabuf_allocate_map, &inode) != 0) {
        return;
    }
    int64_t* total = bpf_map_lookup_elem(&dmabuf_size_map, &allocation.pid);
    if (total != NULL) {
        WriteDmabufTotal(allocation.pid, TakeFrom((uint64_t*)total, allocation.size));
    }
}

/* At the end of the process. Looks first, because looking takes no lock. */
static __always_inline void ForgetDmabufTotal(int32_t pid) {
    if (bpf_map_lookup_elem(&dmabuf_size_map, &pid) != NULL) {
        bpf_map_delete_elem(&dmabuf_size_map, &pid);
    }
}

#endif
