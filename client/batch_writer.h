// SPDX-License-Identifier: Apache-2.0
//
// Output that is collected and written in batches, and that a stop request can end although the
// reader at the other end has stopped reading.
#pragma once

#include <string>

namespace Tesu::Bpf {

// Used by one thread at a time. SIGPIPE must be ignored in the process.
class BatchWriter {
  public:
    enum class Result {
        WRITTEN,
        STOPPED,  // the reader does not read, and the stop descriptor is readable
        CLOSED,   // nobody reads any more
        FAILED,   // errno says why
    };

    // Both borrowed. stopFd: becomes readable when waiting for the reader is to end.
    BatchWriter(int fd, int stopFd) : fd(fd), stopFd(stopFd) {}

    // Text is appended here.
    std::string& batch() { return text; }

    // Writes the batch, in order, and empties it whatever the result.
    Result flush();

  private:
    Result waitWritable() const;

    int fd;
    int stopFd;
    std::string text;
};

}  // namespace Tesu::Bpf
