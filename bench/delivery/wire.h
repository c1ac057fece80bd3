// SPDX-License-Identifier: Apache-2.0
//
// What the driver, the peers and the clients of the delivery benchmark have agreed on.
#pragma once

#include <cstdint>
#include <limits>

namespace Tesu::Bpf {

// Abstract names of the peers' sockets.
inline constexpr const char* RAW_PEER_SOCKET = "tesubpf-bench-raw";
inline constexpr const char* ZMQ_PEER_ADDRESS = "ipc://@tesubpf-bench-zmq";

// Written by a server that can be connected to (by the daemon, with more behind it), and by the
// clients once each of them has had a probe.
inline constexpr const char* SERVING = "serving";
inline constexpr const char* CLIENTS_ARE_READY = "ready\n";

// Times of records that are not counted. Those that are counted rise from 1.
inline constexpr int64_t PROBE_TIME = 0;
inline constexpr int64_t END_TIME = std::numeric_limits<int64_t>::max();

}  // namespace Tesu::Bpf
