/* SPDX-License-Identifier: Apache-2.0
 *
 * libtesubpf: the service's events as they happen, for C and C++.
 *
 *   tesubpf_open -> (poll the descriptor -> tesubpf_next until 0)... -> tesubpf_close
 *
 * A stream keeps a connection to the service, subscribes to the wanted types each time it is made,
 * and hands out what comes, one event at a time, in the order in which things happened: records and
 * notifications, and among them what became of the connection, so that nobody goes on across a gap
 * unknowingly. Without a service it tries again every 5 seconds, and for the first time a second
 * after a connection was lost. Events of the time between are not made up for.
 *
 * No function blocks, logs, starts a thread or calls back; what the kernel interrupts is tried
 * again. A stream is used by one thread at a time; different streams are independent. Nothing is
 * queued here beyond one buffer of 32 KiB: who does not call tesubpf_next lets events wait in the
 * service, which ends the connection when they are too many.
 */
#ifndef TESUBPF_TESUBPF_H
#define TESUBPF_TESUBPF_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

struct tesubpf_stream;

/* All fields may be 0 but `size`. */
struct tesubpf_options {
    size_t size;             /* sizeof(struct tesubpf_options) of who calls */
    const char* socket_name; /* in the abstract namespace; NULL: where the service listens */
};

/* Values of tesubpf_event.kind. */
enum tesubpf_kind {
    /* A record or notification of `type`: the `size` bytes at `data`. */
    TESUBPF_RECORD = 1,
    /* There is a connection; the subscriptions are on their way. */
    TESUBPF_CONNECTED = 2,
    /* Every subscription of this connection was answered: from now on every event of the accepted
     * types comes. */
    TESUBPF_SUBSCRIBED = 3,
    /* The service refused the subscription to `type`. */
    TESUBPF_REFUSED = 4,
    /* Nobody listens under the service's name; said once until there is a connection. */
    TESUBPF_WAITING = 5,
    /* The other side sends what is no stream of frames, see `reason`; TESUBPF_LOST follows. */
    TESUBPF_MALFORMED = 6,
    /* The connection is gone for which TESUBPF_CONNECTED came. `reason`, where it is known. */
    TESUBPF_LOST = 7
};

/* `type` of a record that is too short to say it. */
#define TESUBPF_NO_TYPE UINT32_MAX

struct tesubpf_event {
    uint32_t kind;      /* enum tesubpf_kind; more may be added, to be left out */
    uint32_t type;      /* see records.h and notifications.h; unknown types are handed out too */
    uint32_t size;      /* bytes at `data` */
    uint32_t reserved;  /* 0 */
    int64_t received;   /* CLOCK_MONOTONIC in nanoseconds; never goes back in a stream */
    const void* data;   /* the record as it was sent, often unaligned: see tesubpf_read */
    const char* reason; /* for people, in English; "" where there is none; never NULL */
};

/* Makes a stream of `count` event types, at least one, and connects with the first tesubpf_next.
 * options: may be NULL. Returns 0, or a negative errno and no stream: -EINVAL for arguments that
 * make no sense, -E2BIG for options that this version does not know, -ENAMETOOLONG, -ENOMEM, or why
 * the system gave no descriptor. */
int tesubpf_open(struct tesubpf_stream** stream, const uint32_t* types, size_t count,
                 const struct tesubpf_options* options);

/* Readable (POLLIN is all to wait for) when tesubpf_next may have an event. The stream's: not to be
 * read or closed. The same for life. */
int tesubpf_fd(const struct tesubpf_stream* stream);

/* 1: the next event, of which `data` and `reason` are valid until the next call for this stream.
 * 0: none now; poll before the next call. Says so at least once for each buffer received, so that
 * who has other descriptors gets round to them; what is left keeps the descriptor readable.
 * Negative errno: -EINVAL where an argument is NULL. */
int tesubpf_next(struct tesubpf_stream* stream, struct tesubpf_event* event);

/* Copies the event's data into a record of `size` bytes: what a short one does not cover becomes 0,
 * what a long one has more, in a later version of the service, is left out. */
void tesubpf_read(const struct tesubpf_event* event, void* record, size_t size);

/* NULL: nothing is done. */
void tesubpf_close(struct tesubpf_stream* stream);

/* The name of an event type, as in "task-create"; NULL for one that this version does not know. */
const char* tesubpf_type_name(uint32_t type);

/* The type of a name, or of its short form as in "fork". Returns 0, or -ENOENT. */
int tesubpf_type_number(const char* name, uint32_t* type);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
