// SPDX-License-Identifier: Apache-2.0
//
// The answer to STATUS_COMMAND (records/status.h).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "events/event_manager.h"
#include "records/status.h"
#include "service/bpf_program.h"

namespace Tesu::Bpf {

// The data of each response, in order. Reads who is at the other end of each client's connection.
std::vector<std::string> BuildStatusReport(const ServiceStatus& service,
                                           const std::vector<BpfProgramState>& programs,
                                           const std::vector<RingStatus>& rings,
                                           const std::vector<ClientState>& clients);

}  // namespace Tesu::Bpf
