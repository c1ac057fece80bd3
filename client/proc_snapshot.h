// SPDX-License-Identifier: Apache-2.0
//
// Processes as /proc tells them at one moment.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Tesu::Bpf {

// Kinds of memory, numbered as RSS records number them.
enum MemoryKind { MEMORY_FILE, MEMORY_ANON, MEMORY_SWAP, MEMORY_SHMEM, MEMORY_KINDS };

struct ProcessSnapshot {
    int32_t pid = 0;
    int32_t ppid = 0;
    int32_t uid = -1;  // real user id; -1: not readable
    std::string name;  // as the kernel has it, any bytes
    bool isKernelThread = false;
    bool isEnding = false;  // its main thread has ended or is about to
    int32_t threads = 0;
    std::array<int64_t, MEMORY_KINDS> memory{};  // bytes
    std::optional<int64_t> openFds;              // none: not readable
    int64_t startTime = 0;                       // monotonic nanoseconds, as fine as a clock tick
    int64_t readTime = 0;                        // monotonic nanoseconds, before the first read
};

// The text of /proc/PID/stat: name, parent, threads, flags. startTicks: clock ticks from boot to
// the process's start. False when it is no such text; `process` may then be half filled. Pure.
bool ParseProcStat(std::string_view text, ProcessSnapshot* process, uint64_t* startTicks);

// The text of /proc/PID/status: user and memory; what it does not hold is left alone. Pure.
void ParseProcStatus(std::string_view text, ProcessSnapshot* process);

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
    bool readFile(const std::string& path);

    const std::string root;
    std::string text;  // of the file read last
};

}  // namespace Tesu::Bpf
