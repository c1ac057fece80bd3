// SPDX-License-Identifier: Apache-2.0
//
// A place of its own for tests that pin and attach eBPF programs: no test meets a daemon, pins or
// sockets of the machine, and all of it goes with the process.
#pragma once

#include <string>

namespace Tesu::Bpf {

// Gives the process name spaces of its own for mounts and network, with an empty bpf file system on
// /sys/fs/bpf and the tracing file system on /sys/kernel/tracing. To be called before any thread is
// started. False, with a reason, where the privileges are missing: tests skip then.
bool EnterBpfSandbox(std::string* reason);

}  // namespace Tesu::Bpf
