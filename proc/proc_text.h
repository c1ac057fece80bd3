// SPDX-License-Identifier: Apache-2.0
//
// What is taken from the text of /proc: pure functions, for any input.
//
// Numbers: leading blanks are skipped, what follows the digits is ignored, text without a number is
// 0 and a number out of range is the nearest one.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string_view>

#include "records/raw_event.h"

namespace Tesu::Bpf {

int64_t ParseNumber(std::string_view text, int base = 10);

// What the lines of /proc/PID/status begin with.
inline constexpr char STATUS_NAME[] = "Name:\t";
inline constexpr char STATUS_PPID[] = "PPid:\t";
inline constexpr char STATUS_UID[] = "Uid:\t";
inline constexpr char STATUS_RSS_ANON[] = "RssAnon:";
inline constexpr char STATUS_RSS_FILE[] = "RssFile:";
inline constexpr char STATUS_RSS_SHMEM[] = "RssShmem:\t";
inline constexpr char STATUS_SWAP[] = "VmSwap:\t";
// What the path of a dma-buf mapping in /proc/PID/maps holds.
inline constexpr char MAPS_DMABUF[] = "/dmabuf";

// Of /proc/PID/status. What the text does not have stays 0.
struct ProcStatus {
    char comm[TESU_COMM_LEN] = {};  // NUL-terminated
    int32_t ppid = 0;
    int32_t uid = 0;                              // the real one
    std::array<int64_t, RSS_MEMBER_COUNT> rss{};  // bytes, by RssMember
    uint64_t caughtSignals = 0;                   // signal n is bit n - 1
    // All its threads have ended; it waits for its parent to ask for its exit status.
    bool isZombie = false;
};
ProcStatus ParseProcStatus(std::string_view text);

// Of /proc/PID/stat.
struct ProcStat {
    int32_t pid = 0;
    std::string_view name;  // as the kernel has it, any bytes; valid as long as the text
    char state = 0;
    int32_t ppid = 0;
    uint32_t flags = 0;  // task_struct.flags
    int32_t threadNum = 0;
    int64_t startTicks = 0;  // clock ticks since boot

    // Whether its main thread has ended or is about to.
    bool isEnding() const {
        constexpr uint32_t FLAG_EXITING = 0x4;
        return (flags & FLAG_EXITING) != 0 || state == 'Z' || state == 'X';
    }
};
// Nothing when it is no such text.
std::optional<ProcStat> ParseProcStat(std::string_view text);

// threadNum and startTicks alone, which are taken at the blanks of the first line, so that a name
// with a blank shifts them: the rule of task-init records. Nothing when there are too few fields.
std::optional<ProcStat> ParseProcStatAtBlanks(std::string_view text);

// A dma-buf mapping in /proc/PID/maps.
struct DmabufMapping {
    uint64_t inode = 0;
    int64_t size = 0;  // bytes
};
// Nothing for a line that is no dma-buf mapping, or whose path name holds blanks.
std::optional<DmabufMapping> ParseDmabufMapping(std::string_view mapsLine);

// Hands each line of the text to `visit`, without its newline.
template <class Visit>
void ForEachLine(std::string_view text, Visit visit) {
    while (!text.empty()) {
        const size_t end = text.find('\n');
        visit(text.substr(0, end));
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    }
}

}  // namespace Tesu::Bpf
