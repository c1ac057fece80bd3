// SPDX-License-Identifier: Apache-2.0
//
// `tesubpf status`: how the service stands, as text or JSON.
#pragma once

#include <string>

#include "util/termination_signals.h"

namespace Tesu::Bpf {

// Prints it; an ExitStatus.
int RunStatus(const std::string& socketName, bool asJson, const TerminationSignals& signals);

}  // namespace Tesu::Bpf
