// SPDX-License-Identifier: Apache-2.0
#include "client/proc_snapshot.h"

#include <android-base/unique_fd.h>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <memory>

#include "util/monotonic_clock.h"
#include "util/string_util.h"

namespace Tesu::Bpf {

namespace {

// Flags of a task in /proc/PID/stat.
constexpr uint32_t FLAG_EXITING = 0x4;
constexpr uint32_t FLAG_KERNEL_THREAD = 0x200000;

// Fields of /proc/PID/stat that stand behind the name, counted from the state.
constexpr size_t STATE = 0;
constexpr size_t PPID = 1;
constexpr size_t FLAGS = 6;
constexpr size_t THREADS = 17;
constexpr size_t START_TICKS = 19;

// Larger than any of the two files; what is longer is not read further.
constexpr size_t FILE_LIMIT = 16384;

struct CloseDirectory {
    void operator()(DIR* directory) const { closedir(directory); }
};
using Directory = std::unique_ptr<DIR, CloseDirectory>;

Directory OpenDirectory(const std::string& path) {
    return Directory(opendir(path.c_str()));
}

// The number at the start of the text, behind blanks.
template <class T>
bool ParseNumber(std::string_view text, T* value) {
    text.remove_prefix(std::min(text.find_first_not_of(" \t"), text.size()));
    return std::from_chars(text.data(), text.data() + text.size(), *value).ec == std::errc();
}

// The text up to the separator, which is taken off `rest` with it.
std::string_view CutAt(char separator, std::string_view* rest) {
    const size_t end = std::min(rest->find(separator), rest->size());
    const std::string_view piece = rest->substr(0, end);
    rest->remove_prefix(std::min(end + 1, rest->size()));
    return piece;
}

std::optional<int64_t> CountEntries(const std::string& path) {
    // Kernels since 6.2 tell the number of descriptors as the directory's size.
    struct stat status {};
    if (stat(path.c_str(), &status) == 0 && status.st_size > 0) {
        return status.st_size;
    }
    const Directory directory = OpenDirectory(path);
    if (directory == nullptr) {
        return std::nullopt;
    }
    int64_t count = 0;
    while (const dirent* const entry = readdir(directory.get())) {
        count += entry->d_name[0] == '.' ? 0 : 1;
    }
    return count;
}

int64_t TicksToMonotonic(uint64_t ticks) {
    const auto ticksPerSecond = static_cast<uint64_t>(sysconf(_SC_CLK_TCK));
    const uint64_t sinceBoot = ticks / ticksPerSecond * NANOSECONDS_PER_SECOND +
                               ticks % ticksPerSecond * NANOSECONDS_PER_SECOND / ticksPerSecond;
    // The boot clock runs on while the machine sleeps, the monotonic one does not.
    return static_cast<int64_t>(sinceBoot) -
           (ClockNanoseconds(CLOCK_BOOTTIME) - ClockNanoseconds(CLOCK_MONOTONIC));
}

}  // namespace

bool ParseProcStat(std::string_view text, ProcessSnapshot* process, uint64_t* startTicks) {
    // A name may hold blanks, brackets and line ends; it ends at the last bracket.
    const size_t nameStart = text.find('(');
    const size_t nameEnd = text.rfind(')');
    if (nameStart == std::string_view::npos || nameEnd == std::string_view::npos ||
        nameEnd < nameStart || nameEnd + 2 > text.size()) {
        return false;
    }
    process->name = text.substr(nameStart + 1, nameEnd - nameStart - 1);
    std::string_view rest = text.substr(nameEnd + 2);
    std::array<std::string_view, START_TICKS + 1> fields;
    for (std::string_view& field : fields) {
        field = CutAt(' ', &rest);
    }
    uint32_t flags = 0;
    if (!ParseNumber(text, &process->pid) || !ParseNumber(fields[PPID], &process->ppid) ||
        !ParseNumber(fields[FLAGS], &flags) || !ParseNumber(fields[THREADS], &process->threads) ||
        !ParseNumber(fields[START_TICKS], startTicks)) {
        return false;
    }
    process->isKernelThread = (flags & FLAG_KERNEL_THREAD) != 0;
    process->isEnding = (flags & FLAG_EXITING) != 0 || fields[STATE] == "Z" || fields[STATE] == "X";
    return true;
}

void ParseProcStatus(std::string_view text, ProcessSnapshot* process) {
    static constexpr struct {
        std::string_view key;
        MemoryKind kind;
    } SIZES[] = {{"RssFile", MEMORY_FILE},
                 {"RssAnon", MEMORY_ANON},
                 {"VmSwap", MEMORY_SWAP},
                 {"RssShmem", MEMORY_SHMEM}};
    while (!text.empty()) {
        std::string_view line = CutAt('\n', &text);
        const std::string_view key = CutAt(':', &line);
        if (key == "Uid") {
            ParseNumber(line, &process->uid);
            continue;
        }
        for (const auto& size : SIZES) {
            int64_t kilobytes = 0;
            if (key == size.key && ParseNumber(line, &kilobytes) && kilobytes >= 0 &&
                kilobytes <= INT64_MAX / 1024) {
                process->memory[size.kind] = kilobytes * 1024;
            }
        }
    }
}

bool ProcReader::readFile(const std::string& path) {
    const android::base::unique_fd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    text.resize(FILE_LIMIT);
    size_t size = 0;
    // In pieces: the kernel may give less than there is.
    while (fd.get() != -1 && size < text.size()) {
        const ssize_t count =
            TEMP_FAILURE_RETRY(::read(fd.get(), text.data() + size, text.size() - size));
        if (count < 0) {
            return false;  // it has ended since it was opened
        }
        if (count == 0) {
            break;
        }
        size += static_cast<size_t>(count);
    }
    text.resize(size);
    return size > 0;
}

std::optional<ProcessSnapshot> ProcReader::read(int32_t pid) {
    const std::string folder = root + "/" + std::to_string(pid);
    ProcessSnapshot process;
    process.readTime = MonotonicNanoseconds();
    uint64_t startTicks = 0;
    if (!readFile(folder + "/stat") || !ParseProcStat(text, &process, &startTicks) ||
        process.pid != pid) {
        return std::nullopt;
    }
    process.startTime = TicksToMonotonic(startTicks);
    if (readFile(folder + "/status")) {
        ParseProcStatus(text, &process);
    }
    if (!process.isKernelThread) {
        process.openFds = CountEntries(folder + "/fd");
    }
    return process;
}

bool ProcReader::readAll(std::vector<ProcessSnapshot>* processes) {
    const Directory directory = OpenDirectory(root);
    if (directory == nullptr) {
        return false;
    }
    while (const dirent* const entry = readdir(directory.get())) {
        int32_t pid = 0;
        if (!IsDigits(entry->d_name) || !ParseNumber(entry->d_name, &pid)) {
            continue;
        }
        if (std::optional<ProcessSnapshot> process = read(pid)) {
            processes->push_back(std::move(*process));
        }
    }
    return true;
}

}  // namespace Tesu::Bpf
