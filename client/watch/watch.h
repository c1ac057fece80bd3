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
    std::vector<int> eventTypes;
    bool json = false;
    bool colour = false;
    bool header = false;            // begin with the names of the columns (text only)
    std::optional<double> seconds;  // how long, counted from the call
    std::optional<uint64_t> count;  // how many events
};

enum WatchStatus {
    WATCH_OK = 0,          // ended as asked: by time, count, signal, or because the reader has gone
    WATCH_NOT_SERVED = 1,  // never connected to a service, or it refused every subscription
    WATCH_OUTPUT_FAILED = 3,
};

// Events go to standard output, news of the connection to standard error. Returns a WatchStatus.
int RunWatch(const WatchOptions& options, const TerminationSignals& signals);

}  // namespace Tesu::Bpf
