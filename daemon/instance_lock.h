// SPDX-License-Identifier: Apache-2.0
//
// One daemon per machine (more exactly: per network namespace, like the service's socket).
#pragma once

#include <android-base/unique_fd.h>

#include <string>

namespace Tesu::Bpf {

// In the abstract namespace.
inline constexpr const char* INSTANCE_LOCK_NAME = "/mnt/bpfframework/tesubpfd.lock";

// A lock under `name` that lasts as long as the descriptor, in whatever way the process ends. -1
// and errno on failure; EADDRINUSE: another process holds it.
android::base::unique_fd AcquireInstanceLock(const std::string& name);

}  // namespace Tesu::Bpf
