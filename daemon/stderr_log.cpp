// SPDX-License-Identifier: Apache-2.0
#include "daemon/stderr_log.h"

#include <android-base/unique_fd.h>
#include <android/log.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "util/mutex.h"

namespace Tesu::Bpf {

namespace {

constexpr size_t LINE_SIZE = 128;

// Held while a line is written: nothing else tells whether it was.
Mutex writeLock;
uint64_t leftOut GUARDED_BY(writeLock) = 0;

bool WriteLine(const __android_logger_data* data, const char* text) REQUIRES(writeLock) {
    clearerr(stderr);
    __android_log_stderr_logger(data, text);
    return ferror(stderr) == 0;
}

void Log(const __android_logger_data* data, const char* text) {
    MutexLock lock(writeLock);
    if (leftOut != 0) {
        __android_logger_data own = *data;
        own.priority = ANDROID_LOG_WARN;
        own.tag = "tesubpfd";
        char count[LINE_SIZE];  // what is logged may be that memory has run out
        std::snprintf(
            count, sizeof(count),
            "%llu lines of the log, which nobody read in time, were left out before this one",
            static_cast<unsigned long long>(leftOut));
        leftOut = WriteLine(&own, count) ? 0 : leftOut;
    }
    leftOut += WriteLine(data, text) ? 0 : 1;
}

}  // namespace

// Others share the open file: it is opened once more, where that can be and writing may wait. Who
// gives a service a socket for its log has no other use for it.
void LogWithoutWaiting() {
    struct stat log {};
    fstat(STDERR_FILENO, &log);
    if (S_ISSOCK(log.st_mode)) {
        fcntl(STDERR_FILENO, F_SETFL, fcntl(STDERR_FILENO, F_GETFL) | O_NONBLOCK);
    } else if (S_ISFIFO(log.st_mode) || S_ISCHR(log.st_mode)) {
        const android::base::unique_fd own(
            open("/proc/self/fd/2", O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
        dup2(own.get(), STDERR_FILENO);
    }
    __android_log_set_logger(Log);
}

}  // namespace Tesu::Bpf
