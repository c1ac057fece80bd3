// SPDX-License-Identifier: Apache-2.0
//
// Who is on the other side of a local connection, as the kernel says: the process that connected
// or, from a client, the one that listened.
#pragma once

#include <sys/socket.h>

#include <vector>

// pid and uid are -1 when there is nobody.
inline ucred PeerCredentials(int fd) {
    ucred peer{.pid = -1, .uid = static_cast<uid_t>(-1), .gid = static_cast<gid_t>(-1)};
    socklen_t size = sizeof(peer);
    getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size);
    return peer;
}

// The supplementary groups that the other side had when it connected.
inline std::vector<gid_t> PeerGroups(int fd) {
    std::vector<gid_t> groups;
    socklen_t size = 0;
    getsockopt(fd, SOL_SOCKET, SO_PEERGROUPS, nullptr, &size);  // ERANGE, and how much there is
    groups.resize(size / sizeof(gid_t));
    if (getsockopt(fd, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &size) != 0) {
        groups.clear();
    }
    return groups;
}
