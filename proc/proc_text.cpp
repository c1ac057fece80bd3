// SPDX-License-Identifier: Apache-2.0
#include "proc/proc_text.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <limits>
#include <system_error>
#include <vector>

#include "util/string_util.h"

namespace Tesu::Bpf {

namespace {

// Fields of /proc/PID/stat, counted from 0: the process id, its name, its state, ...
constexpr size_t STAT_THREAD_NUM = 19;
constexpr size_t STAT_START_TICKS = 21;
constexpr size_t STAT_FIELD_COUNT = 22;
// The same, counted from the state.
constexpr size_t STATE = 0;
constexpr size_t PPID = 1;
constexpr size_t FLAGS = 6;
constexpr size_t THREADS = STAT_THREAD_NUM - 2;
constexpr size_t START_TICKS = STAT_START_TICKS - 2;

constexpr size_t MAPS_FIELD_COUNT = 6;
constexpr size_t MAPS_RANGE = 0;
constexpr size_t MAPS_INODE = 4;
constexpr size_t MAPS_PATH = 5;

void TakeName(std::string_view value, ProcStatus* status) {
    std::memset(status->comm, 0, sizeof(status->comm));
    std::memcpy(status->comm, value.data(), std::min(value.size(), sizeof(status->comm) - 1));
}

template <auto Member>
void TakeNumber(std::string_view value, ProcStatus* status) {
    status->*Member = static_cast<int32_t>(ParseNumber(value));
}

template <RssMember Member>
void TakeSize(std::string_view value, ProcStatus* status) {
    status->rss[Member] = static_cast<int64_t>(static_cast<uint64_t>(ParseNumber(value)) << 10);
}

// The first prefix that the line contains decides; the value stands behind a prefix's length.
void ParseStatusLine(std::string_view line, ProcStatus* status) {
    static constexpr struct {
        std::string_view prefix;
        void (*take)(std::string_view value, ProcStatus* status);
    } LINES[] = {{STATUS_NAME, TakeName},
                 {STATUS_PPID, TakeNumber<&ProcStatus::ppid>},
                 {STATUS_RSS_ANON, TakeSize<RSS_ANON>},
                 {STATUS_RSS_FILE, TakeSize<RSS_FILE>},
                 {STATUS_RSS_SHMEM, TakeSize<RSS_SHMEM>},
                 {STATUS_SWAP, TakeSize<RSS_SWAP>},
                 {STATUS_UID, TakeNumber<&ProcStatus::uid>}};
    for (const auto& [prefix, take] : LINES) {
        if (line.find(prefix) != std::string_view::npos) {
            take(line.substr(prefix.size()), status);
            return;
        }
    }
}

}  // namespace

int64_t ParseNumber(std::string_view text, int base) {
    const size_t start = text.find_first_not_of(" \t");
    if (start == std::string_view::npos) {
        return 0;
    }
    text.remove_prefix(start);
    int64_t number = 0;
    const auto result = std::from_chars(text.data(), text.data() + text.size(), number, base);
    if (result.ec == std::errc::result_out_of_range) {
        return text.front() == '-' ? std::numeric_limits<int64_t>::min()
                                   : std::numeric_limits<int64_t>::max();
    }
    return number;
}

ProcStatus ParseProcStatus(std::string_view text) {
    constexpr std::string_view STATE_LINE = "State:\t";
    constexpr std::string_view THREADS_LINE = "Threads:\t";
    constexpr std::string_view CAUGHT_LINE = "SigCgt:\t";
    ProcStatus status;
    bool hasEnded = false;  // the first thread
    int64_t threads = 0;    // the first thread included
    ForEachLine(text, [&](std::string_view line) {
        ParseStatusLine(line, &status);
        if (line.starts_with(STATE_LINE)) {
            hasEnded = line.find_first_of("ZX", STATE_LINE.size()) == STATE_LINE.size();
        } else if (line.starts_with(THREADS_LINE)) {
            threads = ParseNumber(line.substr(THREADS_LINE.size()));
        } else if (line.starts_with(CAUGHT_LINE)) {
            std::from_chars(line.data() + CAUGHT_LINE.size(), line.data() + line.size(),
                            status.caughtSignals, 16);
        }
    });
    status.isZombie = hasEnded && threads <= 1;
    return status;
}

std::optional<ProcStat> ParseProcStat(std::string_view text) {
    // A name may hold blanks, brackets and line ends; it ends at the last bracket.
    const size_t nameStart = text.find('(');
    const size_t nameEnd = text.rfind(')');
    if (nameStart == std::string_view::npos || nameEnd == std::string_view::npos ||
        nameEnd < nameStart) {
        return std::nullopt;
    }
    const std::vector<std::string> fields = Split(std::string(text.substr(nameEnd + 1)), " ");
    if (fields.size() <= START_TICKS) {
        return std::nullopt;
    }
    return ProcStat{.pid = static_cast<int32_t>(ParseNumber(text)),
                    .name = text.substr(nameStart + 1, nameEnd - nameStart - 1),
                    .state = fields[STATE].front(),
                    .ppid = static_cast<int32_t>(ParseNumber(fields[PPID])),
                    .flags = static_cast<uint32_t>(ParseNumber(fields[FLAGS])),
                    .threadNum = static_cast<int32_t>(ParseNumber(fields[THREADS])),
                    .startTicks = ParseNumber(fields[START_TICKS])};
}

std::optional<ProcStat> ParseProcStatAtBlanks(std::string_view text) {
    const std::vector<std::string> fields =
        Split(std::string(text.substr(0, text.find('\n'))), " ");
    if (fields.size() < STAT_FIELD_COUNT) {
        return std::nullopt;
    }
    ProcStat stat;
    stat.threadNum = static_cast<int32_t>(ParseNumber(fields[STAT_THREAD_NUM]));
    stat.startTicks = ParseNumber(fields[STAT_START_TICKS]);
    return stat;
}

std::optional<DmabufMapping> ParseDmabufMapping(std::string_view mapsLine) {
    // Nearly every line ends here, before it is taken apart.
    if (mapsLine.find(MAPS_DMABUF) == std::string_view::npos) {
        return std::nullopt;
    }
    const std::vector<std::string> fields = Split(std::string(mapsLine), " ");
    if (fields.size() != MAPS_FIELD_COUNT ||
        fields[MAPS_PATH].find(MAPS_DMABUF) == std::string::npos) {
        return std::nullopt;
    }
    const std::vector<std::string> range = Split(fields[MAPS_RANGE], "-");
    if (range.size() != 2) {
        return std::nullopt;
    }
    uint64_t inode = 0;
    std::from_chars(fields[MAPS_INODE].data(),
                    fields[MAPS_INODE].data() + fields[MAPS_INODE].size(), inode);
    const auto start = static_cast<uint64_t>(ParseNumber(range[0], 16));
    const auto end = static_cast<uint64_t>(ParseNumber(range[1], 16));
    return DmabufMapping{.inode = inode, .size = static_cast<int64_t>(end - start)};
}

}  // namespace Tesu::Bpf
