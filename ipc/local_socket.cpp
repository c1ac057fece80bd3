// SPDX-License-Identifier: Apache-2.0
#include "ipc/local_socket.h"

#include <android-base/unique_fd.h>
#include <cutils/sockets.h>
#include <sys/socket.h>

#include <cerrno>

namespace Tesu::Bpf {

bool IsServiceListening(const std::string& name) {
    const android::base::unique_fd fd(
        socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (fd.get() == -1) {
        return false;
    }
    // EAGAIN: there is a listener, with a full backlog.
    return socket_local_client_connect(fd.get(), name.c_str(), ANDROID_SOCKET_NAMESPACE_ABSTRACT,
                                       SOCK_STREAM) >= 0 ||
           errno == EAGAIN;
}

}  // namespace Tesu::Bpf
