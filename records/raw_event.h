/* SPDX-License-Identifier: Apache-2.0 OR GPL-2.0-only
 *
 * The records that the eBPF programs write into the two ring buffers. One header for all sides: the
 * programs in bpf/ (C, target bpf) write these structs in place, the service (C++) reads them and
 * hands them unchanged to its clients, which have this header as <tesubpf/records.h>.
 *
 * All integers are little-endian. Records are naturally aligned to 8 bytes in the ring buffer, but
 * not in a client's socket buffer: copy a record out before reading its fields there. A record may
 * be shorter or longer than its struct; a reader takes what `size` covers and treats the rest as 0
 * (ReadPrefix here, tesubpf_read in a client).
 *
 * Units: `time` is CLOCK_MONOTONIC in nanoseconds, sizes are bytes.
 */
#ifndef TESUBPF_RECORDS_RAW_EVENT_H
#define TESUBPF_RECORDS_RAW_EVENT_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
#define TESU_CHECK_LAYOUT(condition) static_assert(condition, "wire layout")
#else
#define TESU_CHECK_LAYOUT(condition) _Static_assert(condition, "wire layout")
#endif

/* Length of the kernel's task name, its NUL included. A name of 16 characters carries no NUL. */
#define TESU_COMM_LEN 16

/* Values of RawEventHeader::type. */
enum RawEventType {
    RAW_EVENT_TASK_INIT = 0,
    RAW_EVENT_RSS_STAT = 1,
    RAW_EVENT_TASK_CREATE = 2,
    RAW_EVENT_TASK_EXIT = 3,
    RAW_EVENT_DMABUF_SIZE = 4,
    RAW_EVENT_CGROUP_ATTACH = 5,
    RAW_EVENT_FD_UPDATE = 6,
    RAW_EVENT_TYPE_COUNT = 7
};

/* Kinds of resident memory: values of member in RSS records, as the kernel numbers them. */
enum RssMember { RSS_FILE = 0, RSS_ANON = 1, RSS_SWAP = 2, RSS_SHMEM = 3, RSS_MEMBER_COUNT = 4 };

/* Values of taskType in create and exit records. */
enum RawTaskType { RAW_TASK_PROCESS = 1, RAW_TASK_THREAD = 2 };

struct RawEventHeader {
    uint32_t type;
    uint32_t padding;
    int64_t time; /* nanoseconds */
};
TESU_CHECK_LAYOUT(sizeof(struct RawEventHeader) == 16);
TESU_CHECK_LAYOUT(offsetof(struct RawEventHeader, time) == 8);

/* A process that lives and was not reported: it did so when the service started, or its records
 * were lost. Made by the service from /proc. */
struct RawTesuTaskInitEvent {
    struct RawEventHeader header;
    int32_t pid;
    int32_t ppid;
    int32_t uid;
    int32_t threadNum;
    char comm[TESU_COMM_LEN];
    int64_t rssFileSize;  /* bytes */
    int64_t rssAnonSize;  /* bytes */
    int64_t rssShmemSize; /* bytes */
    int64_t rssSwapSize;  /* bytes */
    int64_t startTime;    /* seconds since the epoch */
};
TESU_CHECK_LAYOUT(sizeof(struct RawTesuTaskInitEvent) == 88);
TESU_CHECK_LAYOUT(offsetof(struct RawTesuTaskInitEvent, comm) == 32);
TESU_CHECK_LAYOUT(offsetof(struct RawTesuTaskInitEvent, startTime) == 80);

/* A process's own resident memory changed. */
struct RawRssStatEvent {
    struct RawEventHeader header;
    int32_t pid;    /* process id */
    int32_t member; /* RssMember */
    int64_t size;   /* bytes of that kind now */
};
TESU_CHECK_LAYOUT(sizeof(struct RawRssStatEvent) == 32);
TESU_CHECK_LAYOUT(offsetof(struct RawRssStatEvent, size) == 24);

/* A process or a thread was made. Comes before any other record of that task from the same ring;
 * between the two rings there is no order. */
struct RawTaskCreateEvent {
    struct RawEventHeader header; /* time of the fork */
    int32_t ppid;                 /* process id of the parent; for a thread, of its own process */
    int32_t pid;                  /* process id: of the new process, or of the thread's process */
    int32_t uid;                  /* real user id at the fork */
    char comm[TESU_COMM_LEN];     /* name at the fork, before any exec */
    int32_t taskType;             /* RawTaskType */
};
TESU_CHECK_LAYOUT(sizeof(struct RawTaskCreateEvent) == 48);
TESU_CHECK_LAYOUT(offsetof(struct RawTaskCreateEvent, comm) == 28);
TESU_CHECK_LAYOUT(offsetof(struct RawTaskCreateEvent, taskType) == 44);

/* A thread ended, or, with the last thread of a process, the process. */
struct RawTaskExitEvent {
    struct RawEventHeader header;
    int32_t pid;              /* process id, for threads too */
    char comm[TESU_COMM_LEN]; /* name of the task that ended */
    int32_t taskType;         /* RawTaskType */
};
TESU_CHECK_LAYOUT(sizeof(struct RawTaskExitEvent) == 40);
TESU_CHECK_LAYOUT(offsetof(struct RawTaskExitEvent, taskType) == 36);

/* A process's dma-buf total changed. */
struct RawDmabufAllocEvent {
    struct RawEventHeader header;
    int32_t pid;
    int32_t padding;
    int64_t size; /* bytes of dma-bufs that the process holds now */
};
TESU_CHECK_LAYOUT(sizeof(struct RawDmabufAllocEvent) == 32);
TESU_CHECK_LAYOUT(offsetof(struct RawDmabufAllocEvent, size) == 24);

/* Bytes of a cgroup path kept in a record, NUL included; a longer path is cut. */
#define TESU_CGROUP_PATH_LEN 64

/* A task was moved into another cgroup (on devices: between cpusets). */
struct RawCgroupAttachEvent {
    struct RawEventHeader header;
    int32_t pid;       /* thread id of the task that was moved */
    int32_t rootId;    /* id of the cgroup hierarchy */
    int32_t level;     /* depth of the cgroup below its root */
    int32_t padding;   /* 0 */
    uint64_t cgroupId; /* kernfs id of the cgroup */
    char comm[TESU_COMM_LEN];
    char path[TESU_CGROUP_PATH_LEN]; /* NUL-terminated */
};
TESU_CHECK_LAYOUT(sizeof(struct RawCgroupAttachEvent) == 120);
TESU_CHECK_LAYOUT(offsetof(struct RawCgroupAttachEvent, cgroupId) == 32);
TESU_CHECK_LAYOUT(offsetof(struct RawCgroupAttachEvent, path) == 56);

/* A process's count of open descriptors moved by TESU_FD_REPORT_STEP since its last record. The
 * count begins with what the process inherited or the service found, and follows every descriptor
 * put into a free slot and every close; dup2 and dup3 into a free slot are not seen (see
 * bpf/open_fds.h). */
#define TESU_FD_REPORT_STEP 8
struct RawFdUpdateEvent {
    struct RawEventHeader header;
    int32_t pid; /* process id */
    int32_t uid; /* real user id */
    int64_t openFds;
    int64_t reportedFds; /* openFds of the record before this one */
    char comm[TESU_COMM_LEN];
};
TESU_CHECK_LAYOUT(sizeof(struct RawFdUpdateEvent) == 56);
TESU_CHECK_LAYOUT(offsetof(struct RawFdUpdateEvent, openFds) == 24);
TESU_CHECK_LAYOUT(offsetof(struct RawFdUpdateEvent, comm) == 40);

#endif
