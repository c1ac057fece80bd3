// SPDX-License-Identifier: Apache-2.0
//
// `tesubpf export`: a recording as a trace for Perfetto's viewer and its SQL.
#pragma once

#include <string>

#include "util/termination_signals.h"

namespace Tesu::Bpf {

struct ExportOptions {
    std::string from;    // a recording
    std::string output;  // of a file that is not there yet
    // What of it, see ParseReplayTime; empty: all before or after.
    std::string since;
    std::string until;
};

// Returns an ExitStatus. Leaves no file where it could not write all of it, or was ended by a
// signal.
int RunExport(const ExportOptions& options, const TerminationSignals& signals);

}  // namespace Tesu::Bpf
