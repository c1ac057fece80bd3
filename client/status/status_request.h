// SPDX-License-Identifier: Apache-2.0
//
// Asks a running service how it stands.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "records/status.h"
#include "util/result.h"

namespace Tesu::Bpf {

struct StatusReport {
    struct Client {
        ClientStatus status{};
        std::vector<int32_t> types;  // subscriptions
    };

    ServiceStatus service{};
    std::vector<ProgramStatus> programs;
    std::vector<RingStatus> rings;
    std::vector<Client> clients;  // the one that asked among them
};

// Blocks until the answer is whole, at most some seconds for each piece of it.
Result<StatusReport> RequestStatus(const std::string& socketName);

}  // namespace Tesu::Bpf
