// SPDX-License-Identifier: Apache-2.0
//
// Connecting to a stream socket in the abstract namespace. Logs nothing. Any thread.
#pragma once

#include <android-base/unique_fd.h>

#include <string>

namespace Tesu::Bpf {

// A connected socket; none and errno on failure: ECONNREFUSED when nobody listens under `name`.
// socketFlags: SOCK_CLOEXEC, SOCK_NONBLOCK. Non-blocking it fails with EAGAIN when the listener has
// too many connections to accept, otherwise it waits about a second for it.
android::base::unique_fd ConnectLocalSocket(const std::string& name, int socketFlags);

// Whether somebody listens under `name`. A connection is made and closed at once; never blocks, not
// even when the listener does not accept.
bool IsServiceListening(const std::string& name);

}  // namespace Tesu::Bpf
