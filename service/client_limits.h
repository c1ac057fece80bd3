// SPDX-License-Identifier: Apache-2.0
//
// What clients may cost and who may be one, by the host's properties.
#pragma once

#include <sys/socket.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <set>

#include "events/event_manager.h"

namespace Tesu::Bpf {

EventLimits ReadEventLimits();

// Who may connect. Used by the socket loop thread alone.
class ClientAdmission {
  public:
    // Reads the properties.
    ClientAdmission();

    // Whether the client of this connection may stay beside so many others. One that may not is
    // logged, once a minute for each user id.
    bool admit(int fd, size_t others);

  private:
    bool mayStay(int fd, const ucred& peer) const;

    // Both none: everybody.
    std::set<uint32_t> uids;
    std::set<uint32_t> gids;
    size_t mostClients;  // 0: no limit
    std::map<uid_t, std::chrono::steady_clock::time_point> refused;
};

}  // namespace Tesu::Bpf
