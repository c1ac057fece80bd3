// SPDX-License-Identifier: Apache-2.0
#include "daemon/instance_lock.h"

#include <cutils/sockets.h>
#include <sys/socket.h>

namespace Tesu::Bpf {

android::base::unique_fd AcquireInstanceLock(const std::string& name) {
    // A bound socket that nobody can connect to: the kernel frees the name with the descriptor.
    android::base::unique_fd fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (fd.get() != -1 &&
        socket_local_server_bind(fd.get(), name.c_str(), ANDROID_SOCKET_NAMESPACE_ABSTRACT) == -1) {
        fd.reset();
    }
    return fd;
}

}  // namespace Tesu::Bpf
