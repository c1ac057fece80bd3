// SPDX-License-Identifier: Apache-2.0
#include "ipc/local_socket.h"

#include <cutils/sockets.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <cerrno>

namespace Tesu::Bpf {

android::base::unique_fd ConnectLocalSocket(const std::string& name, int socketFlags) {
    android::base::unique_fd fd(socket(AF_UNIX, SOCK_STREAM | socketFlags, 0));
    if (!fd.ok()) {
        return fd;
    }
    // A server whose backlog is full and which does not accept would block for ever.
    const timeval limit{.tv_sec = 1, .tv_usec = 0};
    setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit));
    if (socket_local_client_connect(fd.get(), name.c_str(), ANDROID_SOCKET_NAMESPACE_ABSTRACT,
                                    SOCK_STREAM) < 0) {
        fd.reset();  // keeps errno
    }
    return fd;
}

bool IsServiceListening(const std::string& name) {
    return ConnectLocalSocket(name, SOCK_CLOEXEC | SOCK_NONBLOCK).ok() || errno == EAGAIN;
}

}  // namespace Tesu::Bpf
