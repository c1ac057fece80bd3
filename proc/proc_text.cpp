// SPDX-License-Identifier: Apache-2.0
#include "proc/proc_text.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <limits>
#include <system_error>
#include <vector>

#include "service/tesu_bpf_service.h"
#include "util/string_util.h"

namespace Tesu::Bpf {

namespace {

constexpr size_t STAT_FIELD_COUNT = 22;
constexpr size_t STAT_THREAD_NUM = 19;
constexpr size_t STAT_START_TICKS = 21;

constexpr size_t MAPS_FIELD_COUNT = 6;
constexpr size_t MAPS_RANGE = 0;
constexpr size_t MAPS_INODE = 4;
constexpr size_t MAPS_PATH = 5;

// The line's text behind a prefix of that length, when the line contains the prefix.
std::optional<std::string_view> ValueOf(std::string_view line, const std::string& prefix) {
    if (line.find(prefix) == std::string_view::npos) {
        return std::nullopt;
    }
    return line.substr(prefix.size());
}

int64_t ParseKilobytes(std::string_view text) {
    return static_cast<int64_t>(static_cast<uint64_t>(ParseNumber(text)) << 10);
}

void CopyName(std::string_view name, char (&comm)[TESU_COMM_LEN]) {
    std::memset(comm, 0, sizeof(comm));
    std::memcpy(comm, name.data(), std::min(name.size(), sizeof(comm) - 1));
}

void ParseStatusLine(std::string_view line, ProcStatus* status) {
    using Service = TesuBpfService;
    if (const auto value = ValueOf(line, Service::TASK_COMM_PREFIX)) {
        CopyName(*value, status->comm);
    } else if (const auto value = ValueOf(line, Service::TASK_PPID_PREFIX)) {
        status->ppid = static_cast<int32_t>(ParseNumber(*value));
    } else if (const auto value = ValueOf(line, Service::TASK_RSS_ANON_PREFIX)) {
        status->rssAnonSize = ParseKilobytes(*value);
    } else if (const auto value = ValueOf(line, Service::TASK_RSS_FILE_PREFIX)) {
        status->rssFileSize = ParseKilobytes(*value);
    } else if (const auto value = ValueOf(line, Service::TASK_RSS_SHMEM_PREFIX)) {
        status->rssShmemSize = ParseKilobytes(*value);
    } else if (const auto value = ValueOf(line, Service::TASK_VM_SWAP_PREFIX)) {
        status->swapSize = ParseKilobytes(*value);
    } else if (const auto value = ValueOf(line, Service::TASK_PROC_UID_PREFIX)) {
        status->uid = static_cast<int32_t>(ParseNumber(*value));
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
    constexpr std::string_view STATE = "State:\t";
    constexpr std::string_view THREADS = "Threads:\t";
    ProcStatus status;
    bool hasEnded = false;  // the first thread
    int64_t threads = 0;    // the first thread included
    ForEachLine(text, [&](std::string_view line) {
        ParseStatusLine(line, &status);
        if (line.starts_with(STATE)) {
            hasEnded = line.find_first_of("ZX", STATE.size()) == STATE.size();
        } else if (line.starts_with(THREADS)) {
            threads = ParseNumber(line.substr(THREADS.size()));
        }
    });
    status.isZombie = hasEnded && threads <= 1;
    return status;
}

std::optional<ProcStat> ParseProcStat(std::string_view text) {
    const std::vector<std::string> fields =
        Split(std::string(text.substr(0, text.find('\n'))), " ");
    if (fields.size() < STAT_FIELD_COUNT) {
        return std::nullopt;
    }
    return ProcStat{.threadNum = static_cast<int32_t>(ParseNumber(fields[STAT_THREAD_NUM])),
                    .startTicks = ParseNumber(fields[STAT_START_TICKS])};
}

std::optional<DmabufMapping> ParseDmabufMapping(std::string_view mapsLine) {
    const std::string& prefix = TesuBpfService::TASK_DMABUF_PREFIX;
    // Nearly every line ends here, before it is taken apart.
    if (mapsLine.find(prefix) == std::string_view::npos) {
        return std::nullopt;
    }
    const std::vector<std::string> fields = Split(std::string(mapsLine), " ");
    if (fields.size() != MAPS_FIELD_COUNT || fields[MAPS_PATH].find(prefix) == std::string::npos) {
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
