// SPDX-License-Identifier: Apache-2.0
#include "daemon/service_manager.h"

#include <android-base/unique_fd.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace Tesu::Bpf {

void NotifyServiceManager(const std::string& state) {
    const char* const variable = std::getenv("NOTIFY_SOCKET");
    if (variable == nullptr) {
        return;
    }
    const std::string name = variable;
    sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
    const size_t length = name.copy(address.sun_path, sizeof(address.sun_path));
    if (name.starts_with('@')) {
        address.sun_path[0] = '\0';  // an abstract one
    }
    const android::base::unique_fd fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (sendto(fd.get(), state.data(), state.size(), MSG_NOSIGNAL,
               reinterpret_cast<const sockaddr*>(&address),
               static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length)) < 0) {
        std::fprintf(stderr, "tesubpfd: cannot notify %s: %s\n", variable, strerror(errno));
    }
}

}  // namespace Tesu::Bpf
