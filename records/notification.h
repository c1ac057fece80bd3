/* SPDX-License-Identifier: Apache-2.0
 *
 * The notifications of the service, as a client receives them: what it derives from the kernel's
 * records, and what became of those that did not reach it. Little-endian, without hidden padding;
 * but for the last they carry no time. Sizes are bytes. A client has this header as
 * <tesubpf/notifications.h>.
 */
#ifndef TESUBPF_RECORDS_NOTIFICATION_H
#define TESUBPF_RECORDS_NOTIFICATION_H

#include "records/raw_event.h"

enum NotificationType {
    NOTIFICATION_PROCESS_CREATED = 50001,
    NOTIFICATION_PROCESS_EXITED = 50002,
    NOTIFICATION_THREAD_COUNT = 50003,
    NOTIFICATION_MEMORY = 50004,
    NOTIFICATION_RECORDS_LOST = 50005
};

struct ProcessCreatedNotification {
    uint32_t type;
    int32_t pid;
    int32_t ppid;
    int32_t uid;
    char comm[TESU_COMM_LEN];
};
TESU_CHECK_LAYOUT(sizeof(struct ProcessCreatedNotification) == 32);

struct ProcessExitedNotification {
    uint32_t type;
    int32_t pid;
    char comm[TESU_COMM_LEN];
};
TESU_CHECK_LAYOUT(sizeof(struct ProcessExitedNotification) == 24);

struct ThreadCountNotification {
    uint32_t type;
    int32_t pid;
    int32_t ppid;
    int32_t uid;
    int32_t oldThreadNum;
    int32_t threadNum;
};
TESU_CHECK_LAYOUT(sizeof(struct ThreadCountNotification) == 24);

struct MemoryNotification {
    uint32_t type;
    int32_t pid;
    int32_t ppid;
    int32_t uid;
    char comm[TESU_COMM_LEN];
    int64_t rssFileSize;
    int64_t rssAnonSize;
    int64_t rssSwapSize;
    int64_t rssShmemSize;
    int64_t rssFileOldSize;
    int64_t rssAnonOldSize;
    int64_t rssSwapOldSize;
    int64_t rssShmemOldSize;
};
TESU_CHECK_LAYOUT(sizeof(struct MemoryNotification) == 96);

/* Records of a ring buffer were lost: found it full, or came before the service started. Sent
 * within a second of the loss: what a client knows of tasks may be wrong from then on. */
struct RecordsLostNotification {
    struct RawEventHeader header; /* time: when the loss was seen */
    int32_t ring;                 /* 0: core set of programs, 1: GPL set */
    uint32_t padding;             /* 0 */
    uint64_t lost;                /* records of this ring, since the last notification of it */
    uint64_t total;               /* records of this ring, since the programs were loaded */
};
TESU_CHECK_LAYOUT(sizeof(struct RecordsLostNotification) == 40);
TESU_CHECK_LAYOUT(offsetof(struct RecordsLostNotification, lost) == 24);

#endif
