/* SPDX-License-Identifier: Apache-2.0 OR GPL-2.0-only
 *
 * The sizes of a process's memory for which there is no rss_stat update in its own context: what a
 * fork gave it, and what an exec took away.
 *
 * rss_stat reports a size when it changes, and whether the mm is the current task's own. A fork
 * fills the child's mm while the parent runs, so the child's own updates come on top of sizes that
 * were only ever updated in the parent's context. An exec drops the old mm after it has filled the
 * new one, so a kind of memory that the new program never uses would keep its old size. Therefore
 * sizes of an mm that is not the current task's are recorded under the mm's id, and the first
 * update that a process makes in an mm that is new to it emits the other sizes too.
 *
 * Ids of mms are used again when the last process that had one is gone. No entry survives that:
 * freeing an mm brings its sizes down to 0, the recorded ones too, and its owner's first update
 * removes them.
 */
#ifndef TESUBPF_BPF_TASK_MEMORY_H
#define TESUBPF_BPF_TASK_MEMORY_H

#include "bpf/current_task.h"
#include "bpf/ring.h"

/* Old entries make room for new ones: for an evicted process only the next exec goes unnoticed;
 * sizes matter from a fork to the child's first update. */
#define PROCESS_MMS 8192
#define FOREIGN_MMS 1024

struct MmSizes {
    int64_t bytes[RSS_MEMBER_COUNT];
};

struct {
    __uint(type, BPF_MAP_TYPE_LRU_HASH);
    __uint(max_entries, PROCESS_MMS);
    __type(key, uint32_t);   /* process id */
    __type(value, uint32_t); /* id of its mm */
} process_mm SEC(".maps");

struct {
    __uint(type, BPF_MAP_TYPE_LRU_HASH);
    __uint(max_entries, FOREIGN_MMS);
    __type(key, uint32_t); /* id of an mm that another task than its owner filled */
    __type(value, struct MmSizes);
} foreign_mm_sizes SEC(".maps");

static __always_inline void WriteRssStat(uint32_t pid, int32_t member, int64_t size) {
    struct RawRssStatEvent* record = ReserveRecord(sizeof(*record), RAW_EVENT_RSS_STAT);
    if (record == NULL) {
        return;
    }
    record->pid = pid;
    record->member = member;
    record->size = size;
    bpf_ringbuf_submit(record, 0);
}

/* The id of the mm that a record of rss_stat is about; 0: not known. */
static __always_inline uint32_t MmId(const void* rssRecord) {
    return IsKnown(kernelLayout.rssMmId) ? LoadInt(rssRecord, kernelLayout.rssMmId) : 0;
}

/* The same number, below RSS_MEMBER_COUNT already, in a form in which every verifier sees that it
 * is: that of 6.1 forgets a bound which was only compared. */
static __always_inline uint32_t BoundedMember(uint32_t member) {
    _Static_assert((RSS_MEMBER_COUNT & (RSS_MEMBER_COUNT - 1)) == 0, "a mask");
    asm volatile("" : "+r"(member));
    return member & (RSS_MEMBER_COUNT - 1);
}

/* The current task updated an mm that is not its own. A task that ends and a kernel thread fill no
 * mm: they only keep sizes true that are already recorded. */
static __always_inline void RecordForeignMm(uint32_t mm, uint32_t member, int64_t size) {
    if (mm == 0 || member >= RSS_MEMBER_COUNT) {
        return;
    }
    struct MmSizes* sizes = bpf_map_lookup_elem(&foreign_mm_sizes, &mm);
    if (sizes != NULL) {
        *(volatile int64_t*)&sizes->bytes[BoundedMember(member)] = size;
    } else if (size > 0 && !HasTaskFlag(TASK_FLAG_KERNEL_THREAD | TASK_FLAG_ENDING)) {
        struct MmSizes first = {};
        first.bytes[BoundedMember(member)] = size;
        bpf_map_update_elem(&foreign_mm_sizes, &mm, &first, BPF_ANY);
    }
}

/* Before a process's own update of `member`: if the mm is new to it, emits the other sizes. Of a
 * new process those that were not recorded are 0. */
static __always_inline void EmitNewMm(uint32_t pid, uint32_t mm, uint32_t member) {
    if (mm == 0) {
        return;
    }
    const uint32_t* former = bpf_map_lookup_elem(&process_mm, &pid);
    if (former != NULL && *former == mm) {
        return;
    }
    const int isExec = former != NULL;
    bpf_map_update_elem(&process_mm, &pid, &mm, BPF_ANY);
    struct MmSizes sizes = {};
    const struct MmSizes* recorded = bpf_map_lookup_elem(&foreign_mm_sizes, &mm);
    if (recorded != NULL) {
        sizes = *recorded;
        bpf_map_delete_elem(&foreign_mm_sizes, &mm);
    }
#pragma unroll
    for (uint32_t other = 0; other < RSS_MEMBER_COUNT; ++other) {
        if (other != member && (isExec || sizes.bytes[other] != 0)) {
            WriteRssStat(pid, other, sizes.bytes[other]);
        }
    }
}

static __always_inline void ForgetMm(uint32_t pid) {
    bpf_map_delete_elem(&process_mm, &pid);
}

#endif
