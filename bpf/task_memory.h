/* SPDX-License-Identifier: Apache-2.0 OR GPL-2.0-only
 *
 * The sizes that no event of a process tells of its memory: what it was born with, and what it
 * lost.
 *
 * The kernel tells a size when it changes, and marks whether the memory is the current task's own.
 * A fork fills the child's memory while the parent runs, so the child's own changes come on top of
 * sizes that only the parent's events told. An exec throws the old memory away after it took the
 * new one, so a kind of memory that the new program never uses would keep its old size. Therefore
 * what is told of memory that is not the current task's is noted under that memory's id, and the
 * first change that a process makes in memory that is new to it brings the other sizes with it.
 *
 * Ids of memory come again, when the last process that had it is gone. A note outlives neither:
 * freeing the memory brings its sizes down to 0, the note's too, and its owner's first change
 * removes it.
 */
#ifndef TESUBPF_BPF_TASK_MEMORY_H
#define TESUBPF_BPF_TASK_MEMORY_H

#include "bpf/current_task.h"
#include "bpf/ring.h"

#define RSS_MEMBERS 4
/* Old entries make room for new ones: an evicted process only has no exec noticed until its next
 * change; a note matters from a fork to the child's first step. */
#define MEMORY_OWNERS 8192
#define MEMORY_NOTES 1024

struct MemoryNote {
    int64_t sizes[RSS_MEMBERS]; /* bytes, by member */
};

struct {
    __uint(type, BPF_MAP_TYPE_LRU_HASH);
    __uint(max_entries, MEMORY_OWNERS);
    __type(key, uint32_t);   /* process id */
    __type(value, uint32_t); /* id of its memory */
} memory_owner SEC(".maps");

struct {
    __uint(type, BPF_MAP_TYPE_LRU_HASH);
    __uint(max_entries, MEMORY_NOTES);
    __type(key, uint32_t); /* id of the memory */
    __type(value, struct MemoryNote);
} memory_note SEC(".maps");

static __always_inline void WriteRssStat(uint32_t pid, int32_t member, int64_t size) {
    struct RawRssStatEvent* record = ReserveRecord(sizeof(*record));
    if (record == NULL) {
        return;
    }
    SetHeader(&record->header, RAW_EVENT_RSS_STAT, bpf_ktime_get_ns());
    record->pid = pid;
    record->member = member;
    record->size = size;
    bpf_ringbuf_submit(record, 0);
}

/* The id of the memory that a record of rss_stat is about; 0: not known. */
static __always_inline uint32_t MemoryId(const void* rssRecord) {
    return IsKnown(kernelLayout.rssMemory) ? LoadInt(rssRecord, kernelLayout.rssMemory) : 0;
}

/* The same number, below RSS_MEMBERS already, in a form in which every verifier sees that it is:
 * that of 6.1 forgets a bound which was only compared. */
static __always_inline uint32_t BoundedMember(uint32_t member) {
    _Static_assert((RSS_MEMBERS & (RSS_MEMBERS - 1)) == 0, "a mask");
    asm volatile("" : "+r"(member));
    return member & (RSS_MEMBERS - 1);
}

/* The current task changed memory that is not its own. A task that ends and a kernel thread make
 * no memory: they only keep notes true that are there. */
static __always_inline void NoteForeignMemory(uint32_t memory, uint32_t member, int64_t size) {
    if (memory == 0 || member >= RSS_MEMBERS) {
        return;
    }
    struct MemoryNote* note = bpf_map_lookup_elem(&memory_note, &memory);
    if (note != NULL) {
        *(volatile int64_t*)&note->sizes[BoundedMember(member)] = size;
    } else if (size > 0 && !IsKernelThreadOrEnding()) {
        struct MemoryNote first = {};
        first.sizes[BoundedMember(member)] = size;
        bpf_map_update_elem(&memory_note, &memory, &first, BPF_ANY);
    }
}

/* Before a process's own change of `member`: if its memory is new to it, tells the other sizes. A
 * new process is known to have none but those that were noted. */
static __always_inline void TellNewMemory(uint32_t pid, uint32_t memory, uint32_t member) {
    if (memory == 0) {
        return;
    }
    const uint32_t* former = bpf_map_lookup_elem(&memory_owner, &pid);
    if (former != NULL && *former == memory) {
        return;
    }
    const int isExec = former != NULL;
    bpf_map_update_elem(&memory_owner, &pid, &memory, BPF_ANY);
    struct MemoryNote sizes = {};
    const struct MemoryNote* note = bpf_map_lookup_elem(&memory_note, &memory);
    if (note != NULL) {
        sizes = *note;
        bpf_map_delete_elem(&memory_note, &memory);
    }
#pragma unroll
    for (uint32_t other = 0; other < RSS_MEMBERS; ++other) {
        if (other != member && (isExec || sizes.sizes[other] != 0)) {
            WriteRssStat(pid, other, sizes.sizes[other]);
        }
    }
}

static __always_inline void ForgetMemory(uint32_t pid) {
    bpf_map_delete_elem(&memory_owner, &pid);
}

#endif
