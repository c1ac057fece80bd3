// SPDX-License-Identifier: Apache-2.0
//
// Records the service's events into a file, with what is read of /proc beside them, as long as it
// is wanted. What it reads, and when, is what `tesubpf top` reads, so that a recording shows what
// top would have shown.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "util/result.h"
#include "util/termination_signals.h"

namespace Tesu::Bpf {

struct RecorderOptions {
    std::string path;               // of the file, which must not be there yet
    std::string program;            // its name, for messages and the file's header
    std::string socketName;         // the service's
    std::vector<uint32_t> types;    // to subscribe to
    std::optional<double> seconds;  // how long
    // Bytes, LEAST_MAX_SIZE or more; 0: without limit. With a limit there are two files, each
    // complete in itself: when PATH has half of that it becomes PATH.1, in the place of the one
    // before.
    uint64_t maxSize = 0;
    std::string procRoot = "/proc";
};

inline constexpr uint64_t LEAST_MAX_SIZE = 1 << 20;

// What is recorded unless somebody asks for something else: every record, and what was lost. The
// service's own conclusions from them are not.
std::vector<uint32_t> UsualTypes();

// Records until `signals` have one or the time is over; news of the connection, how it went and why
// it failed are said on standard error. Returns what a program returns to the shell: 0: ended as
// asked; 1: there never was a service; 3: /proc could not be read or the file not be written, which
// then holds all until there.
int RunRecorder(const RecorderOptions& options, const TerminationSignals& signals);

}  // namespace Tesu::Bpf
