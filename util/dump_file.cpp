// SPDX-License-Identifier: Apache-2.0
#include "util/dump_file.h"

#include <android-base/file.h>
#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "util/mutex.h"

namespace Tesu::Bpf {

bool ReplaceDumpFile(const std::string& path, const std::string& text) {
    static Mutex fileLock;
    const std::string folder = std::filesystem::path(path).parent_path();
    MutexLock lock(fileLock);
    mkdir(folder.c_str(), 0775);
    unlink(path.c_str());
    const android::base::unique_fd fd(
        open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644));
    if (!fd.ok()) {
        return false;
    }
    android::base::WriteFully(fd, text.data(), text.size());
    return true;
}

}  // namespace Tesu::Bpf
