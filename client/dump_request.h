// SPDX-License-Identifier: Apache-2.0
//
// Asks the running daemon for a dump and waits for the file.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

#include "client/dump_text.h"
#include "util/termination_signals.h"

namespace Tesu::Bpf {

// Where the service writes its dumps.

// The process that listens under this socket name; none, with the reason in `error`.
std::optional<pid_t> FindServiceProcess(const std::string& socketName, std::string* error);

// Signals the process and returns the dump that it writes in answer. None, with the reason in
// `error`: the process does not handle the signal yet (it would end it), may not be signalled or is
// gone, the folder cannot hold a file, or no whole file came within 5 seconds; a signal that ends
// the client leaves `error` empty.
//
// A file counts only if it came after the request and is whole (see IsWholeDump) in two readings. A
// dump of the same kind that somebody else has asked for at the same time is as good.
std::optional<std::string> RequestDump(pid_t service, DumpKind kind, const std::string& folder,
                                       const TerminationSignals& signals, std::string* error);

}  // namespace Tesu::Bpf
