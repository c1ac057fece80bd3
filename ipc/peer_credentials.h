// SPDX-License-Identifier: Apache-2.0
//
// Who is on the other side of a local connection, as the kernel says: the process that connected
// or, from a client, the one that listened.
#pragma once

#include <sys/socket.h>

// pid and uid are -1 when there is nobody.
inline ucred PeerCredentials(int fd) {
    ucred peer{.pid = -1, .uid = static_cast<uid_t>(-1), .gid = static_cast<gid_t>(-1)};
    socklen_t size = sizeof(peer);
    getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size);
    return peer;
}
