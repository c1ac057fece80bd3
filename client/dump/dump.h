// SPDX-License-Identifier: Apache-2.0
//
// `tesubpf tasks` and `tesubpf counters`: print what the daemon dumps.
#pragma once

#include <string>

#include "records/contract.h"
#include "util/termination_signals.h"

namespace Tesu::Bpf {

// Standard output gets the text; when it is a terminal, nothing in it acts on that. Returns an
// ExitStatus.
int RunDump(const std::string& socketName, DumpSignal kind, const TerminationSignals& signals);

}  // namespace Tesu::Bpf
