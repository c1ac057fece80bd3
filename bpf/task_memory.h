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
 *
 * With a step (kernelLayout.rssStep), updates are held back until a size has moved by that much
 * since it was last reported; then all that is held back of the process is reported. What is known
 * of an mm that is new to a process is held back too, and its first update, which nothing was
 * reported before, brings it along. So what was reported last is less than a step away from the
 * size, but where threads change one size at the same moment: then it may be until that moves by
 * the step again.
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

/* By member. Both UNREPORTED: there was no update of it in this mm. */
struct HeldSizes {
    struct HeldSize {
        int64_t latest;
        int64_t reported;
    } members[RSS_MEMBER_COUNT];
};

/* Further from every size than any step. */
#define UNREPORTED (-(INT64_C(1) << 62))

/* Made anew whenever process_mm's entry is. A process whose entry made room for another's has every
 * update reported until it has a new mm. The loader leaves one entry where there is no step. */
struct {
    __uint(type, BPF_MAP_TYPE_LRU_HASH);
    __uint(max_entries, PROCESS_MMS);
    __type(key, uint32_t); /* process id */
    __type(value, struct HeldSizes);
} held_sizes SEC(".maps");

/* Whether the record was written. */
static __always_inline int WriteRssStat(uint32_t pid, int32_t member, int64_t size) {
    struct RawRssStatEvent* record = ReserveRecord(sizeof(*record), RAW_EVENT_RSS_STAT);
    if (record == NULL) {
        return 0;
    }
    record->pid = pid;
    record->member = member;
    record->size = size;
    SubmitRecord(record);
    return 1;
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

/* Of an mm that is new to the process: the sizes that were recorded, and after an exec those that
 * were not, which are 0. */
static __always_inline void HoldNewMm(uint32_t pid, const struct MmSizes* sizes, int isExec) {
    struct HeldSizes held;
#pragma unroll
    for (uint32_t member = 0; member < RSS_MEMBER_COUNT; ++member) {
        const int64_t size = sizes->bytes[member];
        held.members[member].latest = isExec || size != 0 ? size : UNREPORTED;
        held.members[member].reported = UNREPORTED;
    }
    bpf_map_update_elem(&held_sizes, &pid, &held, BPF_ANY);
}

/* Before an update of the current task's own mm: whether it is an update of the process, and not of
 * a kernel thread with an mm that it borrowed. Emits the other sizes of an mm that is new to the
 * process, or with a step leaves them to that update. Of a new process those that were not recorded
 * are 0.
 *
 * process_mm has no kernel threads, so a task whose mm it has is none. */
static __always_inline int EnterMm(struct CurrentTask task, uint32_t mm, uint32_t member) {
    if (mm == 0) {
        return !IsKernelThread(task);
    }
    const uint32_t pid = task.pid;
    const uint32_t* found = bpf_map_lookup_elem(&process_mm, &pid);
    const uint32_t former = found != NULL ? *found : 0;
    if (former == mm) {
        return 1;
    }
    if (IsKernelThread(task)) {
        return 0;
    }
    const int isExec = former != 0;
    bpf_map_update_elem(&process_mm, &pid, &mm, BPF_ANY);
    struct MmSizes sizes = {};
    const struct MmSizes* recorded = bpf_map_lookup_elem(&foreign_mm_sizes, &mm);
    if (recorded != NULL) {
        sizes = *recorded;
        bpf_map_delete_elem(&foreign_mm_sizes, &mm);
    }
    if (kernelLayout.rssStep != 0) {
        HoldNewMm(pid, &sizes, isExec);
        return 1;
    }
#pragma unroll
    for (uint32_t other = 0; other < RSS_MEMBER_COUNT; ++other) {
        if (other != member && (isExec || sizes.bytes[other] != 0)) {
            WriteRssStat(pid, other, sizes.bytes[other]);
        }
    }
    return 1;
}

/* A process's own update. Several threads may be here for one process. A record that is lost is not
 * taken for reported. */
static __always_inline void ReportSize(uint32_t pid, uint32_t mm, uint32_t member, int64_t size) {
    struct HeldSizes* held = NULL;
    if (kernelLayout.rssStep != 0 && mm != 0 && member < RSS_MEMBER_COUNT) {
        held = bpf_map_lookup_elem(&held_sizes, &pid);
    }
    if (held == NULL) {
        WriteRssStat(pid, member, size);
        return;
    }
    const int64_t step = kernelLayout.rssStep;
    volatile struct HeldSize* own = &held->members[BoundedMember(member)];
    const int64_t moved = size - own->reported;
    own->latest = size;
    if (moved < step && moved > -step) {
        return;
    }
#pragma unroll
    for (uint32_t each = 0; each < RSS_MEMBER_COUNT; ++each) {
        volatile struct HeldSize* other = &held->members[each];
        const int64_t latest = other->latest;
        if (latest != other->reported && WriteRssStat(pid, each, latest)) {
            other->reported = latest;
        }
    }
}

static __always_inline void ForgetMm(uint32_t pid) {
    bpf_map_delete_elem(&process_mm, &pid);
    if (kernelLayout.rssStep != 0) {
        bpf_map_delete_elem(&held_sizes, &pid);
    }
}

#endif
