// SPDX-License-Identifier: Apache-2.0
//
// What became of the connection to the service, for people. Pure; any thread.
#pragma once

#include <string>

#include "libtesubpf/tesubpf.h"

namespace Tesu::Bpf {

// A sentence without a full stop; empty for an event that is no news to them.
std::string DescribeNews(const tesubpf_event& event, const std::string& socketName);

// Whether an event of this kind is what is to be shown of the connection from now on. What was lost
// is still said to be lost while nobody answers.
inline bool IsNewState(uint32_t kind, uint32_t shown) {
    return kind == TESUBPF_CONNECTED || kind == TESUBPF_REFUSED || kind == TESUBPF_LOST ||
           (kind == TESUBPF_WAITING && shown != TESUBPF_LOST);
}

}  // namespace Tesu::Bpf
