/* SPDX-License-Identifier: Apache-2.0 OR GPL-2.0-only
 *
 * The count of open descriptors of each process, in open_fd_caller_map. The service enters every
 * process that lives when it starts; a new process inherits the count of the one that forked it.
 *
 * Counted: each descriptor that is put into a free slot (open, socket, pipe, accept, dup, F_DUPFD,
 * descriptors received over sockets) and each file that is closed, close-on-exec and close_range
 * included. Not seen: dup2 and dup3, which fill a slot without fd_install (over an open descriptor
 * they count as a close); descriptors that several processes share (CLONE_FILES) count for the
 * process that opens or closes them. So the count shows growth, not an exact number, and starts
 * anew with each process.
 */
#ifndef TESUBPF_BPF_OPEN_FDS_H
#define TESUBPF_BPF_OPEN_FDS_H

#include "bpf/counters.h"
#include "bpf/current_task.h"
#include "bpf/ring.h"

#define OPEN_FD_PROCESSES 16384

struct {
    __uint(type, BPF_MAP_TYPE_HASH);
    __uint(max_entries, OPEN_FD_PROCESSES);
    __type(key, uint32_t); /* process id */
    __type(value, struct OpenFdCaller);
} open_fd_caller_map SEC(".maps");

/* Enters a process with `openFds` and nothing to report; an entry that is there stays (BPF_NOEXIST)
 * or is replaced (BPF_ANY). */
static __always_inline void EnterOpenFds(uint32_t pid, uint64_t openFds, const char* comm,
                                         uint64_t mode) {
    struct OpenFdCaller caller = {};
    caller.pid = pid;
    caller.openFds = openFds;
    caller.reportedFds = openFds;
    __builtin_memcpy(caller.comm, comm, TESU_COMM_LEN);
    caller.comm[TESU_COMM_LEN - 1] = '\0';
    bpf_map_update_elem(&open_fd_caller_map, &pid, &caller, mode);
}

static __always_inline void InheritOpenFds(uint32_t parentPid, uint32_t pid, const char* comm) {
    const struct OpenFdCaller* parent = bpf_map_lookup_elem(&open_fd_caller_map, &parentPid);
    if (parent != NULL) {
        EnterOpenFds(pid, parent->openFds, comm, BPF_ANY);
    }
}

/* At the end of the process. Looks first, because looking takes no lock. */
static __always_inline void ForgetOpenFds(uint32_t pid) {
    if (bpf_map_lookup_elem(&open_fd_caller_map, &pid) != NULL) {
        bpf_map_delete_elem(&open_fd_caller_map, &pid);
    }
}

/* Writes a record when the count has moved far enough from the one last reported. */
static __always_inline void ReportOpenFds(struct OpenFdCaller* caller, uint32_t pid) {
    const uint64_t open = *(volatile uint64_t*)&caller->openFds;
    const uint64_t reported = *(volatile uint64_t*)&caller->reportedFds;
    const uint64_t change = open > reported ? open - reported : reported - open;
    if (change < TESU_FD_REPORT_STEP) {
        return;
    }
    struct RawFdUpdateEvent* record = ReserveRecord(sizeof(*record), RAW_EVENT_FD_UPDATE);
    if (record != NULL) {
        record->pid = pid;
        record->uid = CurrentUid();
        record->openFds = open;
        record->reportedFds = reported;
        bpf_get_current_comm(record->comm, TESU_COMM_LEN);
        SubmitRecord(record);
    }
    caller->reportedFds = open;
}

static __always_inline void CountOpenedFd(uint32_t pid) {
    struct OpenFdCaller* caller = bpf_map_lookup_elem(&open_fd_caller_map, &pid);
    if (caller == NULL) {
        char comm[TESU_COMM_LEN];
        bpf_get_current_comm(comm, sizeof(comm));
        EnterOpenFds(pid, 1, comm, BPF_NOEXIST);
        return;
    }
    AddTo(&caller->openFds, 1);
    ReportOpenFds(caller, pid);
}

static __always_inline void CountClosedFd(uint32_t pid) {
    struct OpenFdCaller* caller = bpf_map_lookup_elem(&open_fd_caller_map, &pid);
    if (caller != NULL) {
        TakeFrom(&caller->openFds, 1);
        ReportOpenFds(caller, pid);
    }
}

#endif
