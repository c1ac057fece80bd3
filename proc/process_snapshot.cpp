// SPDX-License-Identifier: Apache-2.0
#include "proc/process_snapshot.h"

#include <unistd.h>

#include "proc/proc_files.h"
#include "util/monotonic_clock.h"

namespace Tesu::Bpf {

namespace {

// Bit of a task's flags.
constexpr uint32_t FLAG_KERNEL_THREAD = 0x200000;

int64_t TicksToMonotonic(int64_t ticks) {
    const int64_t ticksPerSecond = sysconf(_SC_CLK_TCK);
    const int64_t sinceBoot = ticks / ticksPerSecond * NANOSECONDS_PER_SECOND +
                              ticks % ticksPerSecond * NANOSECONDS_PER_SECOND / ticksPerSecond;
    // The boot clock runs on while the machine sleeps, the monotonic one does not.
    return sinceBoot - (ClockNanoseconds(CLOCK_BOOTTIME) - ClockNanoseconds(CLOCK_MONOTONIC));
}

}  // namespace

std::optional<ProcessSnapshot> ProcReader::read(int32_t pid) {
    const std::string name = std::to_string(pid);
    ProcessSnapshot process;
    process.readTime = MonotonicNanoseconds();
    if (!ReadProcFile(ProcPath(root, name, "stat"), &text)) {
        return std::nullopt;
    }
    const std::optional<ProcStat> stat = ParseProcStat(text);
    if (!stat || stat->pid != pid) {
        return std::nullopt;
    }
    process.pid = pid;
    process.ppid = stat->ppid;
    process.name = stat->name;
    process.isKernelThread = (stat->flags & FLAG_KERNEL_THREAD) != 0;
    process.isEnding = stat->isEnding();
    process.threads = stat->threadNum;
    process.startTime = TicksToMonotonic(stat->startTicks);
    if (ReadProcFile(ProcPath(root, name, "status"), &text) && !text.empty()) {
        const ProcStatus status = ParseProcStatus(text);
        process.uid = status.uid;
        process.memory = status.rss;
    }
    if (!process.isKernelThread) {
        process.openFds = CountEntries(ProcPath(root, name, "fd"));
    }
    return process;
}

bool ProcReader::readAll(std::vector<ProcessSnapshot>* processes) {
    const auto toTheEnd = [] { return true; };
    return ForEachProcess(root, toTheEnd, [&](const std::string& name) {
        if (auto process = read(static_cast<int32_t>(ParseNumber(name)))) {
            processes->push_back(std::move(*process));
        }
    });
}

}  // namespace Tesu::Bpf
