// SPDX-License-Identifier: Apache-2.0
//
// `tesubpf tasks` and `tesubpf counters`: print what the daemon dumps.
#pragma once

#include <string>

#include "records/contract.h"
#include "util/termination_signals.h"

namespace Tesu::Bpf {

struct DumpOptions {
    std::string socketName;
    DumpSignal kind = DUMP_SIGNAL_STATE;
    bool isTerminal = false;  // standard output is one: nothing printed may act on it
};

enum DumpStatus {
    DUMP_OK = 0,
    DUMP_NOT_SERVED = 1,  // no daemon, or it gave no dump; the reason is on standard error
    DUMP_OUTPUT_FAILED = 3,
};

// Returns a DumpStatus.
int RunDump(const DumpOptions& options, const TerminationSignals& signals);

}  // namespace Tesu::Bpf
