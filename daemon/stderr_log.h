// SPDX-License-Identifier: Apache-2.0
//
// The daemon's log on standard error, which may be a pipe, a socket or a terminal that nobody
// reads. A thread that waited for such a reader would hold up the service and with it every client.
// So a line for which there is no room is left out, and the next one that has room says how many
// were.
#pragma once

namespace Tesu::Bpf {

// From now on nothing that this process writes to standard error waits, libraries' warnings
// included, and what is logged and left out is counted. Not undone. A file is written to as before,
// and so is a pipe or terminal that this process may not open.
void LogWithoutWaiting();

}  // namespace Tesu::Bpf
