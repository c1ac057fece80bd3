// SPDX-License-Identifier: Apache-2.0
#include "proc/proc_files.h"

#include <android-base/unique_fd.h>
#include <dirent.h>
#include <fcntl.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <memory>

#include "util/string_util.h"

namespace Tesu::Bpf {

namespace {

// Enough for all but the maps of large processes.
constexpr size_t READ_CHUNK = 16384;

// Calls `visit` with each entry's name until it answers false. False when the folder cannot be
// opened. An entry of its own process that goes meanwhile is left out, as the kernel does.
template <class Visit>
bool ForEachEntry(const std::string& folder, Visit visit) {
    const std::unique_ptr<DIR, int (*)(DIR*)> entries(opendir(folder.c_str()), closedir);
    if (entries == nullptr) {
        return false;
    }
    while (const dirent* entry = readdir(entries.get())) {
        if (!visit(entry->d_name)) {
            break;
        }
    }
    return true;
}

}  // namespace

std::string ProcPath(const std::string& procRoot, const std::string& pid, const char* entry) {
    return procRoot + "/" + pid + "/" + entry;
}

bool ReadProcFile(const std::string& path, std::string* text) {
    const android::base::unique_fd fd(TEMP_FAILURE_RETRY(open(path.c_str(), O_RDONLY | O_CLOEXEC)));
    if (!fd.ok()) {
        return false;
    }
    size_t length = 0;
    while (true) {
        if (text->size() < length + READ_CHUNK) {
            text->resize(2 * length + READ_CHUNK);
        }
        const ssize_t count =
            TEMP_FAILURE_RETRY(read(fd.get(), text->data() + length, text->size() - length));
        if (count <= 0) {
            text->resize(count == 0 ? length : 0);
            return count == 0;
        }
        length += static_cast<size_t>(count);
    }
}

bool ForEachProcess(const std::string& procRoot,
                    const std::function<bool(const std::string& pid)>& visit) {
    return ForEachEntry(procRoot,
                        [&](const std::string& name) { return !IsDigits(name) || visit(name); });
}

std::optional<int64_t> CountEntries(const std::string& folder) {
    // Kernels since 6.2 give the number of descriptors as the size of /proc/PID/fd.
    struct stat status {};
    struct statfs fileSystem {};
    if (stat(folder.c_str(), &status) == 0 && status.st_size > 0 &&
        statfs(folder.c_str(), &fileSystem) == 0 && fileSystem.f_type == PROC_SUPER_MAGIC) {
        return status.st_size;
    }
    int64_t count = 0;
    const bool opened = ForEachEntry(folder, [&](const char* name) {
        count += name[0] != '.' ? 1 : 0;
        return true;
    });
    return opened ? std::optional(count) : std::nullopt;
}

}  // namespace Tesu::Bpf
