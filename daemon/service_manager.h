// SPDX-License-Identifier: Apache-2.0
//
// The manager that started the daemon, where there is one that wants to be told how it stands.
#pragma once

#include <string>

namespace Tesu::Bpf {

// Sends `state`, lines NAME=VALUE ("READY=1"), to the socket that NOTIFY_SOCKET of the environment
// names; nothing without it. What cannot be sent is said on the standard error.
void NotifyServiceManager(const std::string& state);

}  // namespace Tesu::Bpf
