// SPDX-License-Identifier: Apache-2.0
//
// SIGINT and SIGTERM as a descriptor instead of an interruption.
#pragma once

#include <android-base/unique_fd.h>

#include <chrono>

namespace Tesu::Bpf {

// Blocks both signals in the calling thread and, by inheritance, in every thread made afterwards:
// construct it in main() before any other thread exists. The signals stay blocked.
//
// A signal is never consumed: once one has come, fd() stays readable and wait() returns at once.
class TerminationSignals {
  public:
    // Ends the process with a message when the kernel refuses.
    TerminationSignals();

    // Readable from the first signal on. Borrowed.
    int fd() const { return signalFd.get(); }

    // True when a signal has come, false after `duration` without one; a negative one has no end.
    bool wait(std::chrono::milliseconds duration) const;
    // Returns when a signal has come.
    void wait() const;

  private:
    android::base::unique_fd signalFd;
};

}  // namespace Tesu::Bpf
