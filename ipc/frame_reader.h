// SPDX-License-Identifier: Apache-2.0
//
// Cuts what a client has received into packages. The service's own frame test knows requests only;
// this is the other side, which receives responses and events.
#pragma once

#include <cstdint>
#include <optional>

#include "ipc/buffer_state.h"
#include "util/result.h"

namespace Tesu::Bpf {

struct Package {
    uint32_t type = 0;
    // In the buffer; may be unaligned, valid until bytes in the buffer are moved or replaced.
    const char* body = nullptr;
    uint32_t length = 0;  // bytes
};

// The package at the buffer's cursor, which moves past it; none while it is incomplete.
//
// Fails when the stream is out of step and no later byte of it can be trusted: at a frame without
// room for its package header, one that could never fit the buffer, or one whose two lengths
// contradict each other. The cursor then stays at that frame.
Result<std::optional<Package>> TakePackage(BufferState* buffer);

}  // namespace Tesu::Bpf
