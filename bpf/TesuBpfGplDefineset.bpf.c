// SPDX-License-Identifier: Apache-2.0 OR GPL-2.0-only
//
// The set of programs that is attached on kernel 6.1 alone: dma-buf memory and moves between
// cgroups. A program named <type>_<event> is pinned as prog_TesuBpfGplDefineset_<type>_<event>.
#define RING_BUFFER_BYTES (1024 * 1024)

#include "bpf/current_task.h"
#include "bpf/dmabuf.h"
#include "bpf/kernel_read.h"
#include "bpf/ring.h"

// The core set writes the exit record; here it only ends the account of the process.
SEC("tracepoint/sched/sched_process_exit")
int tracepoint_sched_sched_process_exit(void* ctx) {
    if ((RingFlags() & FLAG_CORE_ENABLED) != 0 && IsLastThread(ctx)) {
        ForgetDmabufTotal(GetCurrentTask().pid);
    }
    return 0;
}

SEC("tracepoint/cgroup/cgroup_attach_task")
int tracepoint_cgroup_cgroup_attach_task(void* ctx) {
    if ((RingFlags() & FLAG_NORMAL_ENABLED) == 0) {
        return 0;
    }
    struct RawCgroupAttachEvent* record = ReserveRecord(sizeof(*record), RAW_EVENT_CGROUP_ATTACH);
    if (record == NULL) {
        return 0;
    }
    __builtin_memset(&record->header + 1, 0, sizeof(*record) - sizeof(record->header));
    record->pid = ReadInt(ctx, kernelLayout.cgroupPid);
    record->rootId = ReadInt(ctx, kernelLayout.cgroupRoot);
    record->level = ReadInt(ctx, kernelLayout.cgroupLevel);
    record->cgroupId = ReadUnsigned(ctx, kernelLayout.cgroupId, kernelLayout.cgroupIdBytes);
    ReadLocatedString(record->comm, sizeof(record->comm), ctx, kernelLayout.cgroupComm);
    ReadLocatedString(record->path, sizeof(record->path), ctx, kernelLayout.cgroupPath);
    SubmitRecord(record);
    return 0;
}

// An argument of the probed function, from the registers at its entry. The loader leaves out
// programs whose offsets it did not find.
static __always_inline const void* ReadArgument(const void* registers, uint32_t offset) {
    return (const void*)ReadUnsigned(registers, offset, kernelLayout.registerSize);
}

static __always_inline uint64_t InodeNumber(const void* inode) {
    return ReadUnsigned(inode, kernelLayout.inodeIno, kernelLayout.pointerSize);
}

// dma_buf_file_release(struct inode*, struct file*): the last reference is gone.
SEC("kprobe/dma_buf_file_release")
int kprobe_enter_dma_buf_file_release(void* ctx) {
    if ((RingFlags() & FLAG_CORE_ENABLED) != 0) {
        RemoveDmabuf(InodeNumber(ReadArgument(ctx, kernelLayout.argument0)));
    }
    return 0;
}

// dma_buf_stats_setup(struct dma_buf*, struct file*): a new buffer with its file.
SEC("kprobe/dma_buf_stats_setup")
int kprobe_enter_dma_buf_stats_setup(void* ctx) {
    if ((RingFlags() & FLAG_CORE_ENABLED) == 0) {
        return 0;
    }
    const void* buffer = ReadArgument(ctx, kernelLayout.argument0);
    const void* file = ReadArgument(ctx, kernelLayout.argument1);
    const uint64_t inode = InodeNumber(ReadPointer(file, kernelLayout.fileInode));
    const int64_t size = ReadUnsigned(buffer, kernelLayout.dmaBufSize, kernelLayout.pointerSize);
    AddDmabuf(inode, GetCurrentTask().pid, size);
    return 0;
}

char LICENSE[] SEC("license") = "GPL";
