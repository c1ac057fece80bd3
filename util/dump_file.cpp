// SPDX-License-Identifier: Apache-2.0
#include "util/dump_file.h"

#include <android-base/file.h>
#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include "util/log.h"
#include "util/mutex.h"

namespace Tesu::Bpf {

bool ReplaceDumpFile(const std::string& path, const std::string& text) {
    static Mutex fileLock;
    const std::string folder = std::filesystem::path(path).parent_path();
    const std::string beside = path + DUMP_BESIDE_SUFFIX;
    MutexLock lock(fileLock);
    mkdir(folder.c_str(), 0775);
    unlink(path.c_str());
    unlink(beside.c_str());
    const android::base::unique_fd fd(
        open(beside.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644));
    if (!fd.ok()) {
        return false;
    }
    const bool isWhole = android::base::WriteFully(fd, text.data(), text.size());
    if (isWhole && rename(beside.c_str(), path.c_str()) == 0) {
        return true;
    }
    const int error = errno;
    unlink(beside.c_str());
    if (!isWhole) {
        TESU_LOGE(TESU_LOG_UTILS, "[ReplaceDumpFile] %s not written: %d, message: %s", path.c_str(),
                  error, strerror(error));
    }
    errno = error;
    return !isWhole;
}

}  // namespace Tesu::Bpf
