// SPDX-License-Identifier: Apache-2.0
//
// `tesubpf info`: what a recording holds.
#pragma once

#include <string>

namespace Tesu::Bpf {

// Reads all of the recording and prints what it is of and how much it has. Returns an ExitStatus.
int RunInfo(const std::string& path);

}  // namespace Tesu::Bpf
