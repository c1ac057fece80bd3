/* SPDX-License-Identifier: Apache-2.0 OR GPL-2.0-only
 *
 * Exit records: of a process with its last thread, of a thread with every other. A helper thread of
 * the kernel's making (see IsKernelMadeWorker) has no create record and no exit record of its own;
 * but when it is the last, the process ends with it, and every thread that was created has then a
 * thread's exit record.
 */
#ifndef TESUBPF_BPF_TASK_EXIT_H
#define TESUBPF_BPF_TASK_EXIT_H

#include "bpf/current_task.h"
#include "bpf/ring.h"

/* Processes whose exit record is written, where two threads may both take themselves for the last.
 * Old entries make room for new ones: one matters for the moment in which such threads end. */
#define WRITTEN_EXITS 1024

struct {
    __uint(type, BPF_MAP_TYPE_LRU_HASH);
    __uint(max_entries, WRITTEN_EXITS);
    __type(key, uint32_t); /* process id */
    __type(value, uint8_t);
} process_exit_written SEC(".maps");

/* Whether the current thread's end is the end of its process; true for one thread of each. */
static __always_inline int EndsProcess(const void* exitRecord, uint32_t pid) {
    if (!IsLastThread(exitRecord)) {
        return 0;
    }
    const uint8_t written = 1;
    return IsKnown(kernelLayout.exitGroupDead) ||
           bpf_map_update_elem(&process_exit_written, &pid, &written, BPF_NOEXIST) == 0;
}

/* A new task has the id: an exit written under it was another process's. */
static __always_inline void ForgetWrittenExit(uint32_t tid) {
    if (!IsKnown(kernelLayout.exitGroupDead)) {
        bpf_map_delete_elem(&process_exit_written, &tid);
    }
}

static __always_inline void WriteTaskExit(uint32_t pid, int32_t taskType) {
    struct RawTaskExitEvent* record = ReserveRecord(sizeof(*record), RAW_EVENT_TASK_EXIT);
    if (record == NULL) {
        return;
    }
    record->pid = pid;
    if (taskType == RAW_TASK_PROCESS) {
        ReadProcessComm(record->comm);
    } else {
        bpf_get_current_comm(record->comm, TESU_COMM_LEN);
    }
    record->taskType = taskType;
    SubmitRecord(record);
}

#endif
