// SPDX-License-Identifier: Apache-2.0
//
// The name under which the service listens, and the question whether it does.
#pragma once

#include <string>

namespace Tesu::Bpf {

// In the abstract namespace: no file of that name exists.
inline constexpr const char* SERVICE_SOCKET_NAME = "/mnt/bpfframework/tesubpfdispatcher";

// Whether somebody listens under `name`. A connection is made and closed at once; never blocks, not
// even when the listener does not accept. Logs nothing. Any thread.
bool IsServiceListening(const std::string& name);

}  // namespace Tesu::Bpf
