/* SPDX-License-Identifier: Apache-2.0 OR GPL-2.0-only
 *
 * Create records. The fork tracepoint runs in the parent, and its record does not say whether the
 * child is a process or a thread. So the fork only enters a pending create under the child's thread
 * id; the child itself makes the record of it. Every program of the core set looks for the current
 * task's pending create before it does anything else, so the create record comes before any other
 * record of that task in this ring, and since only the child removes the entry, there is exactly
 * one.
 */
#ifndef TESUBPF_BPF_TASK_CREATE_H
#define TESUBPF_BPF_TASK_CREATE_H

#include "bpf/current_task.h"
#include "bpf/open_fds.h"
#include "bpf/ring.h"

/* Tasks that were forked and have not run yet. */
#define PENDING_CREATES 16384

struct PendingCreate {
    uint64_t time;      /* of the fork, nanoseconds; 0: voided by the service, no record */
    uint32_t forkerPid; /* process id of the task that forked */
    uint32_t uid;
    char comm[TESU_COMM_LEN];
};

struct {
    __uint(type, BPF_MAP_TYPE_HASH);
    __uint(max_entries, PENDING_CREATES);
    __type(key, uint32_t); /* thread id of the new task */
    __type(value, struct PendingCreate);
} task_create_pending SEC(".maps");

/* At least as many as there are entries, where the kernel has atomics: raised before one is made,
 * lowered after one was removed. While it is 0, which is nearly always, nobody needs to look. */
static uint64_t pendingCreates;

static __always_inline int MayHavePendingCreate(void) {
    return !kernelLayout.hasAtomics || *(volatile uint64_t*)&pendingCreates != 0;
}

static __always_inline void CountPendingCreate(uint64_t change) {
    if (kernelLayout.hasAtomics) {
        __sync_fetch_and_add(&pendingCreates, change);
    }
}

/* Whether the entry was there and is gone. */
static __always_inline int RemovePendingCreate(uint32_t tid) {
    if (bpf_map_delete_elem(&task_create_pending, &tid) != 0) {
        return 0;
    }
    CountPendingCreate(-1);
    return 1;
}

/* A task that ends while the core class is off removes its entry, so that a later task with the
 * same id does not find it. */
static __always_inline void DropPendingCreate(uint32_t tid) {
    if (MayHavePendingCreate()) {
        RemovePendingCreate(tid);
    }
}

/* In the forking task. An entry that finds no room is a lost record; one left over under the same
 * id, of a task whose end was not seen, is replaced. */
static __always_inline void AddPendingCreate(uint32_t childTid, uint32_t forkerPid) {
    struct PendingCreate pending = {};
    pending.time = bpf_ktime_get_ns();
    pending.forkerPid = forkerPid;
    pending.uid = CurrentUid();
    bpf_get_current_comm(pending.comm, sizeof(pending.comm));
    DropPendingCreate(childTid);
    CountPendingCreate(1);
    if (bpf_map_update_elem(&task_create_pending, &childTid, &pending, BPF_ANY) != 0) {
        CountPendingCreate(-1);
        CountLostRecord();
    }
}

/* In any task, first thing: writes its create record if that is pending. `ringFlags` have the core
 * class enabled. */
static __always_inline void WritePendingCreate(struct CurrentTask task, uint64_t ringFlags) {
    if (!MayHavePendingCreate()) {
        return;
    }
    const struct PendingCreate* found = bpf_map_lookup_elem(&task_create_pending, &task.tid);
    if (found == NULL) {
        return;
    }
    const struct PendingCreate pending = *found;
    /* Nobody else removes it; were that to fail, the next program would try again. */
    if (!RemovePendingCreate(task.tid) || pending.time == 0) {
        return;
    }
    const int isProcess = task.pid == task.tid;
    if (isProcess && (ringFlags & FLAG_NORMAL_ENABLED) != 0) {
        InheritOpenFds(pending.forkerPid, task.pid, pending.comm);
    }
    struct RawTaskCreateEvent* record = ReserveRecord(sizeof(*record), RAW_EVENT_TASK_CREATE);
    if (record == NULL) {
        return;
    }
    record->header.time = pending.time;
    record->ppid = isProcess ? CurrentParentPid(pending.forkerPid) : task.pid;
    record->pid = task.pid;
    record->uid = pending.uid;
    __builtin_memcpy(record->comm, pending.comm, TESU_COMM_LEN);
    record->taskType = isProcess ? RAW_TASK_PROCESS : RAW_TASK_THREAD;
    SubmitRecord(record);
}

#endif
