// SPDX-License-Identifier: Apache-2.0
//
// Asks the running daemon for a dump and waits for the file.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

#include "records/contract.h"
#include "util/result.h"
#include "util/termination_signals.h"

namespace Tesu::Bpf {

// The process that listens under this socket name.
Result<pid_t> FindServiceProcess(const std::string& socketName);

// Signals the process and returns the dump that it writes into `folder` in answer; none when a
// signal ends the client. Fails when the process does not handle the signal yet (it would end it),
// may not be signalled or is gone, when the folder cannot hold a file, when the daemon was seen to
// fail at writing it, and when no file came within 5 seconds.
//
// The daemon puts a file in place when it is whole. It counts if it came after the request and is
// of the wanted kind; one that somebody else has asked for at the same time is as good.
Result<std::optional<std::string>> RequestDump(pid_t service, DumpSignal kind,
                                               const std::string& folder,
                                               const TerminationSignals& signals);

}  // namespace Tesu::Bpf
