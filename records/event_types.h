/* SPDX-License-Identifier: Apache-2.0
 *
 * The event types that a client can subscribe to, for C and C++: one row for each, by type, of its
 * struct, its number, its name and a short form of that.
 */
#ifndef TESUBPF_RECORDS_EVENT_TYPES_H
#define TESUBPF_RECORDS_EVENT_TYPES_H

#include "records/notification.h"
#include "records/raw_event.h"

/* clang-format off */
#define TESU_EVENT_TYPES(ROW) \
    ROW(RawTesuTaskInitEvent, RAW_EVENT_TASK_INIT, "task-init", "init") \
    ROW(RawRssStatEvent, RAW_EVENT_RSS_STAT, "rss-stat", "rss") \
    ROW(RawTaskCreateEvent, RAW_EVENT_TASK_CREATE, "task-create", "fork") \
    ROW(RawTaskExitEvent, RAW_EVENT_TASK_EXIT, "task-exit", "exit") \
    ROW(RawDmabufAllocEvent, RAW_EVENT_DMABUF_SIZE, "dmabuf-size", "dmabuf") \
    ROW(RawCgroupAttachEvent, RAW_EVENT_CGROUP_ATTACH, "cgroup-attach", "cgroup") \
    ROW(RawFdUpdateEvent, RAW_EVENT_FD_UPDATE, "fd-update", "fds") \
    ROW(ProcessCreatedNotification, NOTIFICATION_PROCESS_CREATED, "process-created", "created") \
    ROW(ProcessExitedNotification, NOTIFICATION_PROCESS_EXITED, "process-exited", "exited") \
    ROW(ThreadCountNotification, NOTIFICATION_THREAD_COUNT, "thread-count-change", "threads") \
    ROW(MemoryNotification, NOTIFICATION_MEMORY, "memory-change", "memory") \
    ROW(RecordsLostNotification, NOTIFICATION_RECORDS_LOST, "records-lost", "lost")
/* clang-format on */

#endif
