// SPDX-License-Identifier: Apache-2.0
#include "ipc/unix_socket.h"

#include <cutils/sockets.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "ipc/epoll_manager.h"
#include "util/log.h"

int OpenServerSocket(const char* name, bool logFailure) {
    const int fd = socket_local_server(name, ANDROID_SOCKET_NAMESPACE_ABSTRACT, SOCK_STREAM);
    if (fd == -1) {
        const int error = errno;
        if (logFailure) {
            TESU_LOGW(TESU_LOG_UTILS, "Create socket: %s failed: %d, message: %s", name, error,
                      strerror(error));
        }
        errno = error;
        return -1;
    }
    fcntl(fd, F_SETFD, FD_CLOEXEC);
    if (!Setnonblocking(fd)) {
        TESU_LOGE(TESU_LOG_UTILS, "Setnonblocking (%s) failed: %d, message: %s", name, errno,
                  strerror(errno));
        return -1;
    }
    return fd;
}

int CreateNonblockingServerSocket(const char* name) {
    return OpenServerSocket(name, true);
}

int ConnectToServer(const char* name) {
    // What socket_local_client does, with a limit: connecting to a server whose backlog is full and
    // which does not accept would otherwise never return, and a stop would wait for it.
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);  // NOLINT(android-cloexec-socket): see header
    const timeval limit{.tv_sec = 1, .tv_usec = 0};
    if (fd != -1) {
        setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit));
    }
    if (fd == -1 ||
        socket_local_client_connect(fd, name, ANDROID_SOCKET_NAMESPACE_ABSTRACT, SOCK_STREAM) < 0) {
        const int error = errno;
        TESU_LOGE(TESU_LOG_UTILS, "Failed to create socket: %d, message: %s", error,
                  strerror(error));
        if (fd != -1) {
            close(fd);
        }
        errno = error;
        return -1;
    }
    if (!Setnonblocking(fd)) {
        TESU_LOGE(TESU_LOG_UTILS, "Setnonblocking %s path failed: %d, message: %s", name, errno,
                  strerror(errno));
        return -1;
    }
    return fd;
}
