// SPDX-License-Identifier: Apache-2.0
//
// Cuts what a client has received into packages. The service's own frame test knows requests only;
// this is the other side, which receives responses and events.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "ipc/buffer_state.h"

namespace Tesu::Bpf {

// (package type, body, its length in bytes). The body may be unaligned, is valid only during the
// call.
using PackageConsumer = std::function<void(uint32_t, char*, uint32_t)>;

// Hands every complete package from the cursor on to `consume`, and moves the cursor past it; the
// incomplete tail is left for the next receive.
//
// False, with the reason in `error`, when the stream is out of step and no later byte of it can be
// trusted: a frame without room for its package header, one that could never fit the buffer, or one
// whose two lengths contradict each other. The cursor then stays at that frame.
bool ReadFrames(BufferState* buffer, const PackageConsumer& consume, std::string* error);

}  // namespace Tesu::Bpf
