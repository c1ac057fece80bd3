// SPDX-License-Identifier: Apache-2.0
#include "ipc/local_socket.h"

#include <errno.h>
#include <stddef.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

int ConnectLocalSocket(const char* name, int socketFlags) {
    // A NUL in front makes it a name of the abstract namespace.
    struct sockaddr_un address = {.sun_family = AF_UNIX};
    const size_t length = strlen(name);
    if (length >= sizeof(address.sun_path)) {
        errno = ENAMETOOLONG;
        return -1;
    }
    memcpy(address.sun_path + 1, name, length);
    const socklen_t size = (socklen_t)(offsetof(struct sockaddr_un, sun_path) + 1 + length);

    const int fd = socket(AF_UNIX, SOCK_STREAM | socketFlags, 0);
    if (fd == -1) {
        return -1;
    }
    // A server whose backlog is full and which does not accept would block for ever.
    const struct timeval limit = {.tv_sec = 1};
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit));
    int result = 0;
    do {
        result = connect(fd, (const struct sockaddr*)&address, size);
    } while (result == -1 && errno == EINTR);
    if (result == -1) {
        const int error = errno;
        close(fd);
        errno = error;
        return -1;
    }
    return fd;
}

bool IsServiceListening(const char* name) {
    const int fd = ConnectLocalSocket(name, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (fd == -1) {
        return errno == EAGAIN;
    }
    close(fd);
    return true;
}
