// SPDX-License-Identifier: Apache-2.0
//
// Output that a stop request can end although the reader at the other end has stopped reading.
#pragma once

#include <string_view>

namespace Tesu::Bpf {

enum class WriteResult {
    WRITTEN,
    STOPPED,  // the reader does not read, and the stop descriptor is readable
    CLOSED,   // nobody reads any more
    FAILED,   // errno says why
};

// Writes the text, in order. Both descriptors are borrowed; stopFd becomes readable when waiting
// for the reader is to end. SIGPIPE must be ignored in the process. Any thread.
WriteResult WriteUntilStopped(int fd, std::string_view text, int stopFd);

}  // namespace Tesu::Bpf
