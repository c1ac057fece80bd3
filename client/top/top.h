// SPDX-License-Identifier: Apache-2.0
//
// `tesubpf top`: a live view of the processes, by memory or whatever the user looks for.
#pragma once

#include <optional>
#include <string>

#include "model/process_model.h"
#include "util/termination_signals.h"

namespace Tesu::Bpf {

struct TopOptions {
    std::string socketName;
    std::string procRoot = "/proc";
    // A recording to be shown instead of this machine, and from where on; empty: none.
    std::string from;
    std::string at;
    bool isBatch = false;           // one snapshot as text instead of a screen
    std::optional<double> seconds;  // how long; a batch run prints at the end of it
    bool colour = false;
    ViewRequest view;  // what to show, at first
};

// Returns an ExitStatus. Blocks further signals in the calling thread, for good.
int RunTop(const TopOptions& options, const TerminationSignals& signals);

}  // namespace Tesu::Bpf
