// SPDX-License-Identifier: Apache-2.0
//
// Whether the service will find the eBPF maps that it needs, so that a daemon says at once why it
// cannot serve, instead of serving silence.
#pragma once

#include <string>

#include "util/result.h"

namespace Tesu::Bpf {

// Whether there is a bpf file system above `pinDir`, and this process may use maps and attach
// programs.
Result<> CheckBpfAccess(const std::string& pinDir);

// Whether the maps of the core set and, if asked, of the GPL set are pinned below `pinDir`, of the
// layout that the service has for them, and may be opened. The first that is not is named.
Result<> CheckPins(const std::string& pinDir, bool withGplSet);

}  // namespace Tesu::Bpf
