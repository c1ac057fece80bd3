// SPDX-License-Identifier: Apache-2.0
//
// `tesubpf watch`: prints events as they come.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "util/termination_signals.h"

namespace Tesu::Bpf {

struct WatchOptions {
    std::string socketName;
    std::string from;  // a recording to be printed instead; empty: none
    std::vector<uint32_t> eventTypes;
    bool json = false;
    bool colour = false;
    bool header = false;            // begin with the names of the columns (text only)
    std::optional<double> seconds;  // how long, counted from the call; not of a recording
    std::optional<uint64_t> count;  // how many events
};

// Events go to standard output, news of the connection to standard error. Returns an ExitStatus.
// A recording gives what was printed while it was made, for the same types, but for the times at
// which this program would have received what carries no time of its own: it has the recorder's.
// When `seconds` are over the process gets a SIGTERM, which `signals` takes as any other.
int RunWatch(const WatchOptions& options, const TerminationSignals& signals);

}  // namespace Tesu::Bpf
