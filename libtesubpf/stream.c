// SPDX-License-Identifier: Apache-2.0
#include <errno.h>
#include <stdbool.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <time.h>
#include <unistd.h>

#include "ipc/frame.h"
#include "ipc/local_socket.h"
#include "libtesubpf/tesubpf.h"
#include "records/contract.h"

// Who was built with this version's structs goes on with later ones.
_Static_assert(sizeof(struct tesubpf_event) == 24 + 2 * sizeof(void*), "ABI");
_Static_assert(sizeof(struct tesubpf_options) == 2 * sizeof(void*), "ABI");

// In seconds. The short one is for the first try after a lost connection, so that a peer that hangs
// up on everybody, or talks nonsense, is not connected to without end; and for a service that has
// too many connections to accept.
enum { RETRY_PAUSE = 5, SHORT_PAUSE = 1 };

enum {
    NAME_SIZE = 108,  // as an address has, for the NUL in front of the name
    SUBSCRIPTION_SIZE = REQUEST_FRAME_SIZE(sizeof(uint32_t)),
};

struct Subscription {
    uint32_t type;  // also the id of the request
    bool isAnswered;
};

struct tesubpf_stream {
    char socketName[NAME_SIZE];
    struct Subscription* subscriptions;
    size_t count;
    char* requests;  // the frames of all, in their order
    int epoll;       // holds the timer and, while there is a connection, the socket
    int retryTimer;
    bool isWaiting;  // TESUBPF_WAITING was said
    // Kind of an event that followed from the same cause as the one before it; 0: none.
    uint32_t following;

    // Of the current connection.
    int socket;        // -1: there is none
    size_t sentBytes;  // of `requests`
    size_t unanswered;
    bool mayReceive;
    int64_t receivedTime;  // when it was last received from, made or lost: monotonic nanoseconds
    struct FrameBuffer received;  // over `storage`
    char storage[IPC_BUFFER_SIZE];
    char fault[FRAME_FAULT_SIZE];
};

static void NoteTime(struct tesubpf_stream* stream) {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    stream->receivedTime = (int64_t)now.tv_sec * 1000000000 + now.tv_nsec;
}

static bool WatchFd(const struct tesubpf_stream* stream, int fd, int operation, uint32_t events) {
    struct epoll_event event = {.events = events};
    return epoll_ctl(stream->epoll, operation, fd, &event) == 0;
}

static void RetryIn(const struct tesubpf_stream* stream, int seconds) {
    // No time at all would disarm the timer.
    const struct itimerspec deadline = {.it_value = {.tv_sec = seconds, .tv_nsec = 1}};
    timerfd_settime(stream->retryTimer, 0, &deadline, NULL);
}

static void CloseSocket(struct tesubpf_stream* stream) {
    if (stream->socket != -1) {
        close(stream->socket);  // and with it out of the epoll set
        stream->socket = -1;
    }
}

static void LoseConnection(struct tesubpf_stream* stream) {
    CloseSocket(stream);
    NoteTime(stream);
    RetryIn(stream, SHORT_PAUSE);
}

// A service that goes on hung up on this client alone.
static const char* WhyClosed(const struct tesubpf_stream* stream) {
    if (!IsServiceListening(stream->socketName)) {
        return "";
    }
    return stream->unanswered == 0 ? "too slow, the daemon did not wait any longer"
                                   : "the daemon does not admit this client";
}

// A connection that broke says so to the next receive.
static void SendRequests(struct tesubpf_stream* stream) {
    const size_t left = stream->count * SUBSCRIPTION_SIZE - stream->sentBytes;
    const ssize_t sent =
        send(stream->socket, stream->requests + stream->sentBytes, left, MSG_NOSIGNAL);
    stream->sentBytes += sent == -1 ? 0 : (size_t)sent;
    WatchFd(stream, stream->socket, EPOLL_CTL_MOD,
            sent == (ssize_t)left ? EPOLLIN : EPOLLIN | EPOLLOUT);
}

// The kind of the event that follows from it, or 0.
static uint32_t TryToConnect(struct tesubpf_stream* stream) {
    uint64_t expirations = 0;
    if (read(stream->retryTimer, &expirations, sizeof(expirations)) == -1) {
        return 0;
    }
    NoteTime(stream);
    stream->socket = ConnectLocalSocket(stream->socketName, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (stream->socket == -1 || !WatchFd(stream, stream->socket, EPOLL_CTL_ADD, EPOLLIN)) {
        const bool isListening = stream->socket != -1 || errno == EAGAIN;
        CloseSocket(stream);
        RetryIn(stream, isListening ? SHORT_PAUSE : RETRY_PAUSE);
        if (isListening || stream->isWaiting) {
            return 0;
        }
        stream->isWaiting = true;
        return TESUBPF_WAITING;
    }
    stream->isWaiting = false;
    // What an earlier connection did not send, get answered or complete is gone with it.
    stream->sentBytes = 0;
    stream->unanswered = stream->count;
    for (size_t i = 0; i < stream->count; ++i) {
        stream->subscriptions[i].isAnswered = false;
    }
    stream->received.cursor = stream->received.length = 0;
    stream->mayReceive = true;
    SendRequests(stream);
    return TESUBPF_CONNECTED;
}

// Leaves `kind` 0 for a package that is none of a client's business.
static void OnResponse(struct tesubpf_stream* stream, const struct Package* package,
                       struct tesubpf_event* event) {
    if (package->length < IPC_RESPONSE_HEAD_SIZE) {
        return;
    }
    const uint32_t type = ReadWord(package->body);
    struct Subscription* subscription = stream->subscriptions;
    struct Subscription* const end = subscription + stream->count;
    while (subscription != end && subscription->type != type) {
        ++subscription;
    }
    if (subscription == end || subscription->isAnswered) {
        return;
    }
    subscription->isAnswered = true;
    const uint32_t progress = --stream->unanswered == 0 ? TESUBPF_SUBSCRIBED : 0;
    if (ReadWord(package->body + sizeof(uint32_t)) == 0) {
        event->kind = progress;
        return;
    }
    stream->following = progress;
    event->kind = TESUBPF_REFUSED;
    event->type = type;
}

static void OnPackage(struct tesubpf_stream* stream, const struct Package* package,
                      struct tesubpf_event* event) {
    if (package->type == IPC_PACKAGE_RESPONSE) {
        OnResponse(stream, package, event);
    } else if (package->type == IPC_PACKAGE_EVENT) {
        const bool hasType = package->length >= sizeof(uint32_t);
        event->kind = TESUBPF_RECORD;
        event->type = hasType ? ReadWord(package->body) : TESUBPF_NO_TYPE;
        event->size = package->length;
        event->data = package->body;
    }
}

// False when nothing has come, and when the connection was lost.
static bool Receive(struct tesubpf_stream* stream) {
    const ssize_t count = ReceiveFrames(stream->socket, &stream->received);
    if (count > 0) {
        NoteTime(stream);
        return true;
    }
    if (count == 0 || (errno != EAGAIN && errno != EINTR)) {
        LoseConnection(stream);
    }
    stream->mayReceive = true;
    return false;
}

// Leaves `kind` 0 when there is nothing for now.
static void TakeFromConnection(struct tesubpf_stream* stream, struct tesubpf_event* event) {
    while (event->kind == 0) {
        struct Package package;
        switch (TakePackage(&stream->received, &package, stream->fault)) {
            case FRAME_TAKEN:
                OnPackage(stream, &package, event);
                break;
            case FRAME_IMPOSSIBLE:
                LoseConnection(stream);
                stream->following = TESUBPF_LOST;
                event->kind = TESUBPF_MALFORMED;
                event->reason = stream->fault;
                break;
            case FRAME_INCOMPLETE:
                if (!stream->mayReceive) {
                    stream->mayReceive = true;
                    return;
                }
                stream->mayReceive = false;
                if (Receive(stream)) {
                    break;
                }
                if (stream->socket == -1) {
                    event->kind = TESUBPF_LOST;
                    event->reason = WhyClosed(stream);
                }
                return;
        }
    }
}

int tesubpf_next(struct tesubpf_stream* stream, struct tesubpf_event* event) {
    if (stream == NULL || event == NULL) {
        return -EINVAL;
    }
    *event = (struct tesubpf_event){.kind = stream->following, .reason = ""};
    stream->following = 0;
    if (event->kind == 0 && stream->socket == -1) {
        event->kind = TryToConnect(stream);
    } else if (event->kind == 0) {
        if (stream->sentBytes < stream->count * SUBSCRIPTION_SIZE) {
            SendRequests(stream);
        }
        TakeFromConnection(stream, event);
    }
    event->received = stream->receivedTime;
    return event->kind != 0;
}

// Each type once, in the order given. False without memory.
static bool AddSubscriptions(struct tesubpf_stream* stream, const uint32_t* types, size_t count) {
    stream->subscriptions = calloc(count, sizeof(*stream->subscriptions));
    stream->requests = calloc(count, SUBSCRIPTION_SIZE);
    if (stream->subscriptions == NULL || stream->requests == NULL) {
        return false;
    }
    for (const uint32_t* type = types; type != types + count; ++type) {
        size_t i = 0;
        while (i < stream->count && stream->subscriptions[i].type != *type) {
            ++i;
        }
        if (i == stream->count) {
            stream->subscriptions[i].type = *type;
            WriteRequest(stream->requests + i * SUBSCRIPTION_SIZE, *type, TESU_REGISTER_COMMAND,
                         type, sizeof(*type));
            ++stream->count;
        }
    }
    return true;
}

// What a later version has in its options must be 0, which asks for nothing.
static int CheckOptions(const struct tesubpf_options* options) {
    if (options->size < sizeof(*options)) {
        return -EINVAL;
    }
    for (size_t i = sizeof(*options); i < options->size; ++i) {
        if (((const char*)options)[i] != 0) {
            return -E2BIG;
        }
    }
    return options->socket_name != NULL && strlen(options->socket_name) >= NAME_SIZE ? -ENAMETOOLONG
                                                                                     : 0;
}

int tesubpf_open(struct tesubpf_stream** stream, const uint32_t* types, size_t count,
                 const struct tesubpf_options* options) {
    static const struct tesubpf_options NONE = {.size = sizeof(NONE)};
    if (stream == NULL || types == NULL || count == 0) {
        return -EINVAL;
    }
    options = options != NULL ? options : &NONE;
    *stream = NULL;
    int error = CheckOptions(options);
    if (error != 0) {
        return error;
    }
    struct tesubpf_stream* const made = calloc(1, sizeof(*made));
    if (made == NULL) {
        return -ENOMEM;
    }
    strcpy(made->socketName,
           options->socket_name != NULL ? options->socket_name : TESU_SERVICE_SOCKET_NAME);
    made->received = (struct FrameBuffer){.capacity = IPC_BUFFER_SIZE, .data = made->storage};
    made->socket = -1;
    made->epoll = epoll_create1(EPOLL_CLOEXEC);
    made->retryTimer = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK);
    if (made->epoll == -1 || made->retryTimer == -1 ||
        !WatchFd(made, made->retryTimer, EPOLL_CTL_ADD, EPOLLIN) ||
        !AddSubscriptions(made, types, count)) {
        error = -errno;
        tesubpf_close(made);
        return error;
    }
    RetryIn(made, 0);
    *stream = made;
    return 0;
}

int tesubpf_fd(const struct tesubpf_stream* stream) {
    return stream->epoll;
}

void tesubpf_close(struct tesubpf_stream* stream) {
    if (stream == NULL) {
        return;
    }
    CloseSocket(stream);
    if (stream->retryTimer != -1) {
        close(stream->retryTimer);
    }
    if (stream->epoll != -1) {
        close(stream->epoll);
    }
    free(stream->requests);
    free(stream->subscriptions);
    free(stream);
}
