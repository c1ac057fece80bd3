// SPDX-License-Identifier: Apache-2.0 OR GPL-2.0-only
//
// The core set of programs: tasks that are made and end, resident memory, open descriptors. A
// program named <type>_<event> is pinned as prog_TesuBpfDefineset_<type>_<event>.
#define RING_BUFFER_BYTES (4 * 1024 * 1024)

#include "bpf/current_task.h"
#include "bpf/kernel_read.h"
#include "bpf/open_fds.h"
#include "bpf/ring.h"
#include "bpf/task_create.h"
#include "bpf/task_exit.h"
#include "bpf/task_memory.h"

// Sees every task at the latest when it first leaves the CPU.
SEC("tracepoint/sched/sched_switch")
int tracepoint_sched_sched_switch(void* ctx) {
    const uint64_t flags = RingFlags();
    if ((flags & FLAG_CORE_ENABLED) == 0) {
        return 0;
    }
    const struct CurrentTask task = GetCurrentTask();
    if (task.tid != 0) {  // not the idle task
        WritePendingCreate(task, flags);
    }
    return 0;
}

SEC("tracepoint/sched/sched_process_fork")
int tracepoint_sched_sched_process_fork(void* ctx) {
    const uint64_t flags = RingFlags();
    if ((flags & FLAG_CORE_ENABLED) == 0) {
        return 0;
    }
    const struct CurrentTask task = GetCurrentTask();
    WritePendingCreate(task, flags);
    const uint32_t childTid = ReadInt(ctx, kernelLayout.forkChildPid);
    ForgetWrittenExit(childTid);
    AddPendingCreate(childTid, task.pid);
    return 0;
}

SEC("tracepoint/sched/sched_process_exit")
int tracepoint_sched_sched_process_exit(void* ctx) {
    const uint64_t flags = RingFlags();
    const struct CurrentTask task = GetCurrentTask();
    if ((flags & FLAG_CORE_ENABLED) == 0) {
        DropPendingCreate(task.tid);
        return 0;
    }
    WritePendingCreate(task, flags);
    if (EndsProcess(ctx, task.pid)) {
        WriteTaskExit(task.pid, RAW_TASK_PROCESS);
        ForgetOpenFds(task.pid);
        ForgetMm(task.pid);
    } else if (!IsKernelMadeWorker()) {
        WriteTaskExit(task.pid, RAW_TASK_THREAD);
    }
    return 0;
}

SEC("tracepoint/kmem/rss_stat")
int tracepoint_kmem_rss_stat(void* ctx) {
    const uint64_t flags = RingFlags();
    if ((flags & FLAG_CORE_ENABLED) == 0) {
        return 0;
    }
    const struct CurrentTask task = GetCurrentTask();
    WritePendingCreate(task, flags);
    const uint32_t mm = MmId(ctx);
    const int32_t member = LoadInt(ctx, kernelLayout.rssMember);
    const int64_t size = LoadLong(ctx, kernelLayout.rssSize, kernelLayout.rssSizeBytes);
    if (LoadInt(ctx, kernelLayout.rssCurr) == 0) {
        RecordForeignMm(mm, member, size);
    } else if (EnterMm(task, mm, member)) {
        ReportSize(task.pid, mm, member, size);
    }
    return 0;
}

// Returns the ring's flags after the task's create record, 0 where the normal class is off.
static __always_inline uint64_t EnterNormalProgram(struct CurrentTask task) {
    const uint64_t flags = RingFlags();
    if ((flags & FLAG_CORE_ENABLED) != 0) {
        WritePendingCreate(task, flags);
    }
    return (flags & FLAG_NORMAL_ENABLED) != 0 ? flags : 0;
}

SEC("kprobe/fd_install")
int kprobe_enter_fd_install(void* ctx) {
    const struct CurrentTask task = GetCurrentTask();
    if (EnterNormalProgram(task) != 0) {
        CountOpenedFd(task.pid);
    }
    return 0;
}

SEC("kretprobe/filp_close")
int kprobe_return_filp_close(void* ctx) {
    const struct CurrentTask task = GetCurrentTask();
    if (EnterNormalProgram(task) != 0) {
        CountClosedFd(task.pid);
    }
    return 0;
}

char LICENSE[] SEC("license") = "GPL";
