// SPDX-License-Identifier: Apache-2.0
//
// `tesubpf metrics`: this machine's processes for Prometheus.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "util/termination_signals.h"

namespace Tesu::Bpf {

struct MetricsOptions {
    std::string socketName;
    std::string procRoot = "/proc";
    // One of them: HOST:PORT, where port 0 is chosen by the kernel; or a file, written anew now and
    // then, for a collector that reads files.
    std::string listen;
    std::string textFile;
    // See NamedFigures.
    std::vector<std::string> globs;
    size_t maxNames = 200;
};

// Until a signal comes. Returns an ExitStatus. A build without prometheus-cpp cannot, and says so.
int RunMetrics(const MetricsOptions& options, const TerminationSignals& signals);

}  // namespace Tesu::Bpf
