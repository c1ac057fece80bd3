// SPDX-License-Identifier: Apache-2.0
#include "ipc/unix_socket.h"

#include <android-base/unique_fd.h>
#include <cutils/sockets.h>
#include <fcntl.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "ipc/epoll_manager.h"
#include "ipc/local_socket.h"
#include "util/log.h"

int OpenServerSocket(const char* name, bool logFailure) {
    android::base::unique_fd fd(
        socket_local_server(name, ANDROID_SOCKET_NAMESPACE_ABSTRACT, SOCK_STREAM));
    if (!fd.ok()) {
        const int error = errno;
        if (logFailure) {
            TESU_LOGW(TESU_LOG_UTILS, "Create socket: %s failed: %d, message: %s", name, error,
                      strerror(error));
        }
        errno = error;
        return -1;
    }
    fcntl(fd.get(), F_SETFD, FD_CLOEXEC);
    if (!Setnonblocking(fd.get())) {
        TESU_LOGE(TESU_LOG_UTILS, "Setnonblocking (%s) failed: %d, message: %s", name, errno,
                  strerror(errno));
        return -1;
    }
    return fd.release();
}

int CreateNonblockingServerSocket(const char* name) {
    return OpenServerSocket(name, true);
}

int ConnectToServer(const char* name) {
    android::base::unique_fd fd(ConnectLocalSocket(name, 0));
    if (!fd.ok()) {
        const int error = errno;
        TESU_LOGE(TESU_LOG_UTILS, "Failed to create socket: %d, message: %s", error,
                  strerror(error));
        errno = error;
        return -1;
    }
    if (!Setnonblocking(fd.get())) {
        TESU_LOGE(TESU_LOG_UTILS, "Setnonblocking %s path failed: %d, message: %s", name, errno,
                  strerror(errno));
        return -1;
    }
    return fd.release();
}
