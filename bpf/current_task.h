/* SPDX-License-Identifier: Apache-2.0 OR GPL-2.0-only
 *
 * Facts about the task in whose context a program runs.
 */
#ifndef TESUBPF_BPF_CURRENT_TASK_H
#define TESUBPF_BPF_CURRENT_TASK_H

#include "bpf/kernel_read.h"
#include "records/raw_event.h"

/* Bits of task_struct.flags, the same in every kernel that has them. */
#define TASK_FLAG_ENDING 0x00000004
#define TASK_FLAG_IO_WORKER 0x00000010
#define TASK_FLAG_USER_WORKER 0x00004000
#define TASK_FLAG_KERNEL_THREAD 0x00200000

struct CurrentTask {
    uint32_t pid; /* process id */
    uint32_t tid; /* thread id */
};

static __always_inline struct CurrentTask GetCurrentTask(void) {
    const uint64_t ids = bpf_get_current_pid_tgid();
    const struct CurrentTask task = {.pid = ids >> 32, .tid = (uint32_t)ids};
    return task;
}

static __always_inline uint32_t CurrentUid(void) {
    return (uint32_t)bpf_get_current_uid_gid();
}

static __always_inline const void* CurrentTaskStruct(void) {
    return (const void*)bpf_get_current_task();
}

/* Whether the current task has one of these flags. No where the flags are not known. */
static __always_inline int HasTaskFlag(uint32_t flags) {
    return IsKnown(kernelLayout.taskFlags) &&
           (ReadInt(CurrentTaskStruct(), kernelLayout.taskFlags) & flags) != 0;
}

/* Reads `member` of the structure to which the current task_struct's `pointer` points, both
 * offsets. Whether that is known and could be read. */
static __always_inline int ReadThroughTask(uint32_t pointer, uint32_t member, void* out,
                                           uint32_t size) {
    if (!IsKnown(pointer) || !IsKnown(member)) {
        return 0;
    }
    const void* structure = ReadPointer(CurrentTaskStruct(), pointer);
    return structure != NULL && bpf_probe_read_kernel(out, size, structure + member) == 0;
}

/* Kernel threads can borrow a process's memory and change its counters; without the flags such
 * changes pass for the kernel thread's own. Kernel threads have one thread and run as root, which
 * spares most tasks the read of the flags. */
static __always_inline int IsKernelThread(struct CurrentTask task) {
    return task.tid == task.pid && CurrentUid() == 0 && HasTaskFlag(TASK_FLAG_KERNEL_THREAD);
}

/* Whether the task is a helper thread that the kernel put into a process by itself (for io_uring,
 * vhost), without the fork tracepoint. The names count too, because some kernels clear the flag
 * before such a thread ends. */
static __always_inline int IsKernelMadeWorker(void) {
    if (HasTaskFlag(TASK_FLAG_IO_WORKER | TASK_FLAG_USER_WORKER)) {
        return 1;
    }
    uint64_t comm[TESU_COMM_LEN / sizeof(uint64_t)] = {};
    bpf_get_current_comm(comm, sizeof(comm));
    return comm[0] == 0x2d6b72772d756f69 /* iou-wrk- */ ||
           comm[0] == 0x2d7071732d756f69 /* iou-sqp- */;
}

/* Process id of the parent, `otherwise` where it cannot be read. */
static __always_inline uint32_t CurrentParentPid(uint32_t otherwise) {
    uint32_t pid = 0;
    const int isRead =
        ReadThroughTask(kernelLayout.taskRealParent, kernelLayout.taskTgid, &pid, sizeof(pid));
    return isRead ? pid : otherwise;
}

/* Name of the process: that of its first thread, or of the current one where it cannot be read. */
static __always_inline void ReadProcessComm(char* comm) {
    if (!ReadThroughTask(kernelLayout.taskGroupLeader, kernelLayout.taskComm, comm,
                         TESU_COMM_LEN)) {
        bpf_get_current_comm(comm, TESU_COMM_LEN);
    }
}

/* In sched_process_exit, with its record: whether no other thread of the process lives. The kernel
 * counts the task out before the tracepoint, so where the record does not say it, two threads that
 * end together may both find themselves the last. The loader leaves out the program where neither
 * can be read. */
static __always_inline int IsLastThread(const void* exitRecord) {
    if (IsKnown(kernelLayout.exitGroupDead)) {
        return ReadByte(exitRecord, kernelLayout.exitGroupDead) != 0;
    }
    int32_t live = 1;
    return ReadThroughTask(kernelLayout.taskSignal, kernelLayout.signalLive, &live, sizeof(live)) &&
           live == 0;
}

#endif
