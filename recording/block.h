// SPDX-License-Identifier: Apache-2.0
//
// What reader and writer of a recording share. Pure; any thread.
#pragma once

#include <string_view>

#include "recording/format.h"

namespace Tesu::Bpf {

// CRC-32 of the head's type and length and the body.
uint32_t BlockChecksum(const BlockHead& head, std::string_view body);

}  // namespace Tesu::Bpf
