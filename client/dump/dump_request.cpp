// SPDX-License-Identifier: Apache-2.0
#include "client/dump/dump_request.h"

#include <android-base/file.h>
#include <android-base/strings.h>
#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <utility>
#include <vector>

#include "ipc/local_socket.h"
#include "proc/proc_files.h"
#include "util/dump_file.h"
#include "util/string_util.h"

namespace Tesu::Bpf {

namespace {

using android::base::unique_fd;

constexpr std::chrono::seconds PATIENCE{5};
// Between two looks at the file.
constexpr std::chrono::milliseconds STEP{20};

// Whether the process lives and has a handler for the signal; without one a real-time signal ends
// it.
bool Catches(pid_t process, int signal) {
    std::string text;
    if (!ReadProcFile(ProcPath("/proc", std::to_string(process), "status"), &text)) {
        return false;
    }
    const ProcStatus status = ParseProcStatus(text);
    return !status.isZombie && (status.caughtSignals >> (signal - 1) & 1) != 0;
}

bool IsSameFile(int first, int second) {
    struct stat a {};
    struct stat b {};
    return fstat(first, &a) == 0 && fstat(second, &b) == 0 && a.st_dev == b.st_dev &&
           a.st_ino == b.st_ino;
}

// All task dumps share one file. Their title counts all tasks, so one without kernel tasks has
// fewer rows; names with line ends can make more of them.
bool IsOfKind(DumpSignal kind, const std::string& text) {
    if (kind == DUMP_SIGNAL_STATE) {
        return true;
    }
    const bool isFull = kind == DUMP_SIGNAL_TASKS || kind == DUMP_SIGNAL_NO_KERNEL;
    const bool withKernelTasks = kind == DUMP_SIGNAL_TASKS || kind == DUMP_SIGNAL_NORMAL;
    // The title, the names of the columns, the rows, and what follows the last line end: nothing.
    const std::vector<std::string> lines = android::base::Split(text, "\n");
    const bool hasOldColumns = lines.size() > 1 && lines[1].find(" old") != std::string::npos;
    unsigned count = 0;
    std::sscanf(text.c_str(), "%*[^:]: %u", &count);
    return hasOldColumns == isFull && (!withKernelTasks || lines.size() >= size_t{count} + 3);
}

// Sees a dump fail: the file beside it comes and goes, and the dump does not come.
class FailureWatch {
  public:
    // `path`: of the dump.
    explicit FailureWatch(const std::string& path)
        : folder(std::filesystem::path(path).parent_path()),
          beside(std::filesystem::path(path).filename().string() + DUMP_BESIDE_SUFFIX),
          fd(inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {}

    // Whether the watch has begun just now: when the folder is there.
    bool begin() {
        if (isBegun) {
            return false;
        }
        isBegun = inotify_add_watch(fd.get(), folder.c_str(), IN_CREATE | IN_DELETE) >= 0;
        return isBegun;
    }

    // Whether a dump that the daemon began since then has failed.
    bool hasFailed() {
        alignas(inotify_event) char buffer[4096];
        for (ssize_t size = 0; (size = read(fd.get(), buffer, sizeof(buffer))) > 0;) {
            for (const char* at = buffer; at < buffer + size;) {
                const auto* const event = reinterpret_cast<const inotify_event*>(at);
                at += sizeof(*event) + event->len;
                if (event->len != 0 && beside == event->name) {
                    failed = failed || (isWritten && (event->mask & IN_DELETE) != 0);
                    isWritten = (event->mask & IN_CREATE) != 0;
                }
            }
        }
        return failed;
    }

  private:
    const std::string folder;
    const std::string beside;
    const unique_fd fd;
    bool isBegun = false;
    bool isWritten = false;  // a file beside was seen to come
    bool failed = false;
};

// What is known here of the file system that a dump goes to.
struct Disk {
    bool isReadOnly = false;
    std::string room;  // for people
};

Disk DiskOf(const std::string& folder) {
    struct statvfs disk {};
    if (statvfs(folder.c_str(), &disk) != 0 &&
        statvfs(std::filesystem::path(folder).parent_path().c_str(), &disk) != 0) {
        return {};
    }
    const uint64_t kilobytes = uint64_t{disk.f_bfree} * disk.f_frsize / 1024;
    return {.isReadOnly = (disk.f_flag & ST_RDONLY) != 0,
            .room = StringPrintf(" (its file system has %llu KiB left)",
                                 static_cast<unsigned long long>(kilobytes))};
}

// The text of the first file of the wanted kind that is not `old`; none when a signal came.
Result<std::optional<std::string>> AwaitFile(pid_t service, DumpSignal kind,
                                             const std::string& path, unique_fd old,
                                             FailureWatch* watch,
                                             const TerminationSignals& signals) {
    const auto end = std::chrono::steady_clock::now() + PATIENCE;
    const std::string daemon = StringPrintf("the daemon (pid %d)", service);
    do {
        // In this order: a daemon that ends may have written the file before, and so may one that
        // then failed to write another.
        const bool hasEnded = !Catches(service, kind);
        const bool hasFailed = watch->hasFailed();
        // The daemon puts a regular file there, whoever else might not.
        unique_fd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
        std::string text;
        if (fd.ok() && !IsSameFile(fd.get(), old.get())) {
            if (android::base::ReadFdToString(fd.get(), &text) && IsOfKind(kind, text)) {
                return text;
            }
            // Somebody else's, which may have replaced ours.
            if (!hasEnded) {
                kill(service, kind);
            }
            old = std::move(fd);
        } else if (watch->begin() && !hasEnded) {
            kill(service, kind);  // the folder came with a dump that may have failed unseen
        }
        if (hasEnded) {
            return Failure(daemon + " has ended");
        }
        if (hasFailed) {
            return Failure(daemon + " could not write " + path +
                           DiskOf(std::filesystem::path(path).parent_path()).room +
                           "; its log says why");
        }
        if (signals.wait(STEP)) {
            return std::nullopt;
        }
    } while (std::chrono::steady_clock::now() < end);
    if (access(path.c_str(), R_OK) != 0 && errno == EACCES) {
        return Failure("no permission to read " + path);
    }
    return Failure(StringPrintf("%s wrote no whole %s within %d seconds", daemon.c_str(),
                                path.c_str(), static_cast<int>(PATIENCE.count())));
}

}  // namespace

Result<pid_t> FindServiceProcess(const std::string& socketName) {
    const unique_fd fd(ConnectLocalSocket(socketName.c_str(), SOCK_CLOEXEC));
    if (!fd.ok()) {
        return errno == ECONNREFUSED
                   ? Failure("no daemon is listening on @" + socketName)
                   : SystemFailure("cannot connect to the daemon on @" + socketName);
    }
    // Of the process that began to listen.
    ucred peer{};
    socklen_t size = sizeof(peer);
    if (getsockopt(fd.get(), SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0 || peer.pid <= 0) {
        return Failure("the daemon on @" + socketName + " runs where its process cannot be seen");
    }
    return peer.pid;
}

Result<std::optional<std::string>> RequestDump(pid_t service, DumpSignal kind,
                                               const std::string& folder,
                                               const TerminationSignals& signals) {
    if (!Catches(service, kind)) {
        return Failure(StringPrintf("the daemon (pid %d) is not ready for dumps yet", service));
    }
    const std::string daemon = StringPrintf("the daemon (pid %d)", service);
    if (kill(service, 0) != 0 && errno == EPERM) {
        return Failure("no permission to signal " + daemon + ": try as root");
    }
    // The last folder alone is made by the service.
    const std::string parent = std::filesystem::path(folder).parent_path();
    if (access(parent.c_str(), F_OK) != 0 && errno == ENOENT) {
        return Failure("the folder " + parent +
                       " does not exist, so the daemon cannot write its dumps");
    }
    if (DiskOf(folder).isReadOnly) {
        return Failure("the daemon cannot write its dumps: " + folder +
                       " is on a read-only file system");
    }
    const std::string path =
        folder + "/" + (kind == DUMP_SIGNAL_STATE ? STATE_DUMP_FILE : TASK_DUMP_FILE);
    FailureWatch watch(path);
    watch.begin();
    // Held open, so that no new file can have its number.
    unique_fd old(open(path.c_str(), O_PATH | O_CLOEXEC));
    if (kill(service, kind) != 0) {
        return SystemFailure("cannot signal " + daemon);
    }
    return AwaitFile(service, kind, path, std::move(old), &watch, signals);
}

}  // namespace Tesu::Bpf
