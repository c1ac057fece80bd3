// SPDX-License-Identifier: Apache-2.0
//
// Processes as /proc describes them at one moment.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "records/raw_event.h"

namespace Tesu::Bpf {

struct ProcessSnapshot {
    int32_t pid = 0;
    int32_t ppid = 0;
    int32_t uid = -1;  // real user id; -1: not readable
    std::string name;  // as the kernel has it, any bytes
    bool isKernelThread = false;
    bool isEnding = false;  // its main thread has ended or is about to
    int32_t threads = 0;
    std::array<int64_t, RSS_MEMBER_COUNT> memory{};  // bytes, by RssMember
    std::optional<int64_t> openFds;                  // none: not readable
    int64_t startTime = 0;  // monotonic nanoseconds, as fine as a clock tick
    int64_t readTime = 0;   // monotonic nanoseconds, before the first read
};

// Start times from /proc are cut to a clock tick; two of the same process differ by no more.
inline constexpr int64_t START_TOLERANCE = 20'000'000;

// With other threads left, a process outlives its main thread.
inline bool HasExited(const ProcessSnapshot& process) {
    return process.isEnding && process.threads <= 1;
}

// Reads one tree of processes. Used by one thread at a time.
class ProcReader {
  public:
    explicit ProcReader(std::string root = "/proc") : root(std::move(root)) {}

    // Every process that could be read, in no order; false when the root itself cannot be listed,
    // errno says why.
    bool readAll(std::vector<ProcessSnapshot>* processes);

    // None: there is no such process, or it ends just now.
    std::optional<ProcessSnapshot> read(int32_t pid);

  private:
    const std::string root;
    std::string text;  // of the file read last
};

}  // namespace Tesu::Bpf
