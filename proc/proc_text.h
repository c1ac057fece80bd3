// SPDX-License-Identifier: Apache-2.0
//
// What the service takes from the text of /proc: pure functions, for any input.
//
// Numbers: leading blanks are skipped, what follows the digits is ignored, text without a number is
// 0 and a number out of range is the nearest one.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "records/raw_event.h"

namespace Tesu::Bpf {

int64_t ParseNumber(std::string_view text, int base = 10);

// Of /proc/PID/status. What the text does not have stays 0.
struct ProcStatus {
    char comm[TESU_COMM_LEN] = {};  // NUL-terminated
    int32_t ppid = 0;
    int32_t uid = 0;          // the real one
    int64_t rssAnonSize = 0;  // bytes, as all sizes
    int64_t rssFileSize = 0;
    int64_t rssShmemSize = 0;
    int64_t swapSize = 0;
    // All its threads have ended; it waits for its parent to ask for its exit status.
    bool isZombie = false;
};
ProcStatus ParseProcStatus(std::string_view text);

// Of /proc/PID/stat. Fields are taken at the blanks of the first line, so a process name with a
// blank shifts them. Nothing when there are too few.
struct ProcStat {
    int32_t threadNum = 0;
    int64_t startTicks = 0;  // clock ticks since boot
};
std::optional<ProcStat> ParseProcStat(std::string_view text);

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
