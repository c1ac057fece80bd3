/* SPDX-License-Identifier: Apache-2.0
 *
 * A client of the service, in C or C++: prints each process that is made.
 *
 *   cc forks.c $(pkg-config --cflags --libs tesubpf) -o forks
 */
#include <poll.h>
#include <stdio.h>
#include <string.h>
#include <tesubpf/notifications.h>
#include <tesubpf/records.h>
#include <tesubpf/tesubpf.h>

static void show(const struct tesubpf_event* event) {
    struct RawTaskCreateEvent task;
    struct RecordsLostNotification loss;
    if (event->kind == TESUBPF_SUBSCRIBED) {
        printf("listening\n");
    } else if (event->kind == TESUBPF_LOST) {
        printf("connecting again %s\n", event->reason);
    } else if (event->kind == TESUBPF_RECORD && event->type == RAW_EVENT_TASK_CREATE) {
        tesubpf_read(event, &task, sizeof(task));
        if (task.taskType == RAW_TASK_PROCESS) {
            printf("%d forked %d %.*s\n", task.ppid, task.pid, TESU_COMM_LEN, task.comm);
        }
    } else if (event->kind == TESUBPF_RECORD && event->type == NOTIFICATION_RECORDS_LOST) {
        tesubpf_read(event, &loss, sizeof(loss));
        printf("%llu events were lost\n", (unsigned long long)loss.lost);
    }
    fflush(stdout);
}

int main(void) {
    const uint32_t types[] = {RAW_EVENT_TASK_CREATE, NOTIFICATION_RECORDS_LOST};
    struct tesubpf_stream* stream = NULL;
    struct tesubpf_event event;
    const int error = tesubpf_open(&stream, types, 2, NULL);
    if (error != 0) {
        fprintf(stderr, "forks: %s\n", strerror(-error));
        return 1;
    }
    struct pollfd readable = {tesubpf_fd(stream), POLLIN, 0};
    while (poll(&readable, 1, -1) > 0) {
        while (tesubpf_next(stream, &event) > 0) {
            show(&event);
        }
    }
    tesubpf_close(stream);
    return 0;
}
