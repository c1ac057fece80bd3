// SPDX-License-Identifier: Apache-2.0
#include "proc/proc_files.h"

#include <android-base/file.h>
#include <dirent.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/vfs.h>

#include <memory>

#include "util/string_util.h"

namespace Tesu::Bpf {

namespace {

// Calls `visit` with each entry's name. False when the folder cannot be opened. An entry of its own
// process that goes meanwhile is left out, as the kernel does.
template <class Visit>
bool ForEachEntry(const std::string& folder, Visit visit) {
    const std::unique_ptr<DIR, int (*)(DIR*)> entries(opendir(folder.c_str()), closedir);
    if (entries == nullptr) {
        return false;
    }
    while (const dirent* entry = readdir(entries.get())) {
        visit(entry->d_name);
    }
    return true;
}

}  // namespace

std::string ProcPath(const std::string& procRoot, const std::string& pid, const char* entry) {
    return procRoot + "/" + pid + "/" + entry;
}

bool ReadProcFile(const std::string& path, std::string* text) {
    return android::base::ReadFileToString(path, text, true);
}

bool ForEachProcess(const std::string& procRoot, const KeepScanning& keepScanning,
                    const std::function<void(const std::string& pid)>& visit) {
    return ForEachEntry(procRoot, [&](const std::string& name) {
        if (IsDigits(name) && keepScanning()) {
            visit(name);
        }
    });
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
    const bool opened =
        ForEachEntry(folder, [&](const char* name) { count += name[0] != '.' ? 1 : 0; });
    return opened ? std::optional(count) : std::nullopt;
}

}  // namespace Tesu::Bpf
