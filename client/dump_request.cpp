// SPDX-License-Identifier: Apache-2.0
#include "client/dump_request.h"

#include <android-base/file.h>
#include <android-base/unique_fd.h>
#include <cutils/sockets.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <chrono>
#include <csignal>
#include <cstring>
#include <filesystem>

#include "ipc/local_socket.h"
#include "records/contract.h"
#include "util/string_util.h"

namespace Tesu::Bpf {

namespace {

constexpr std::chrono::seconds PATIENCE{5};
// Between two readings of the file.
constexpr std::chrono::milliseconds STEP{20};
constexpr const char* CAUGHT_SIGNALS = "\nSigCgt:\t";

int SignalOf(DumpKind kind) {
    switch (kind) {
        case DumpKind::COUNTERS:
            return DUMP_SIGNAL_STATE;
        case DumpKind::TASKS_FULL:
            return DUMP_SIGNAL_TASKS;
        case DumpKind::TASKS_FULL_NO_KERNEL:
            return DUMP_SIGNAL_NO_KERNEL;
        case DumpKind::TASKS_NORMAL:
            return DUMP_SIGNAL_NORMAL;
        case DumpKind::TASKS_NORMAL_NO_KERNEL:
            return DUMP_SIGNAL_NORMAL_NO_KERNEL;
    }
    return 0;
}

const char* FileNameOf(DumpKind kind) {
    return kind == DumpKind::COUNTERS ? STATE_DUMP_FILE : TASK_DUMP_FILE;
}

// Which file a path leads to, and in what state. A number may be given to another file as soon as
// its file is gone, but not with the same time of change.
struct FileState {
    dev_t device;
    ino_t number;
    timespec changed;
    off_t size;

    bool operator==(const FileState& other) const {
        return device == other.device && number == other.number &&
               changed.tv_sec == other.changed.tv_sec && changed.tv_nsec == other.changed.tv_nsec &&
               size == other.size;
    }
};

FileState ToFileState(const struct stat& status) {
    return {status.st_dev, status.st_ino, status.st_ctim, status.st_size};
}

std::optional<FileState> StateOf(const std::string& path) {
    struct stat status {};
    if (stat(path.c_str(), &status) != 0) {
        return std::nullopt;
    }
    return ToFileState(status);
}

struct Reading {
    FileState state;
    std::string text;
};

// None when there is no file, or it changed meanwhile.
std::optional<Reading> ReadDumpFile(const std::string& path) {
    const android::base::unique_fd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat before {};
    struct stat after {};
    std::string text;
    if (fd.get() == -1 || fstat(fd.get(), &before) != 0 || !S_ISREG(before.st_mode) ||
        !android::base::ReadFdToString(fd.get(), &text) || fstat(fd.get(), &after) != 0 ||
        !(ToFileState(before) == ToFileState(after)) ||
        text.size() != static_cast<size_t>(after.st_size)) {
        return std::nullopt;
    }
    return Reading{ToFileState(after), std::move(text)};
}

// Whether the process has a handler for the signal; without one a real-time signal ends it.
bool Catches(pid_t process, int signal) {
    std::string status;
    if (!android::base::ReadFileToString("/proc/" + std::to_string(process) + "/status", &status)) {
        return false;
    }
    const size_t found = status.find(CAUGHT_SIGNALS);
    if (found == std::string::npos) {
        return false;
    }
    const char* const mask = status.data() + found + std::strlen(CAUGHT_SIGNALS);
    uint64_t caught = 0;
    std::from_chars(mask, status.data() + status.size(), caught, 16);
    return (caught >> (signal - 1) & 1) != 0;
}

std::string WhyNoFile(pid_t service, const std::string& path) {
    if (access(path.c_str(), R_OK) != 0 && errno == EACCES) {
        return "no permission to read " + path;
    }
    return StringPrintf("the daemon (pid %d) wrote no whole %s within %d seconds", service,
                        path.c_str(), static_cast<int>(PATIENCE.count()));
}

}  // namespace

std::optional<pid_t> FindServiceProcess(const std::string& socketName, std::string* error) {
    const android::base::unique_fd fd(
        socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (fd.get() == -1 ||
        socket_local_client_connect(fd.get(), socketName.c_str(), ANDROID_SOCKET_NAMESPACE_ABSTRACT,
                                    SOCK_STREAM) < 0) {
        *error = errno == ECONNREFUSED
                     ? "no daemon is listening on @" + socketName
                     : "cannot connect to the daemon on @" + socketName + ": " + strerror(errno);
        return std::nullopt;
    }
    // Of the process that began to listen.
    ucred peer{};
    socklen_t size = sizeof(peer);
    if (getsockopt(fd.get(), SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0 || peer.pid <= 0) {
        *error = "the daemon on @" + socketName + " runs where its process cannot be seen";
        return std::nullopt;
    }
    return peer.pid;
}

std::optional<std::string> RequestDump(pid_t service, DumpKind kind, const std::string& folder,
                                       const TerminationSignals& signals, std::string* error) {
    const int signal = SignalOf(kind);
    const std::string path = folder + "/" + FileNameOf(kind);
    if (!Catches(service, signal)) {
        *error = StringPrintf("the daemon (pid %d) is not ready for dumps yet", service);
        return std::nullopt;
    }
    // The last folder alone is made by the service.
    const std::string parent = std::filesystem::path(folder).parent_path();
    if (access(parent.c_str(), F_OK) != 0 && errno == ENOENT) {
        *error = "the folder " + parent + " does not exist, so the daemon cannot write its dumps";
        return std::nullopt;
    }
    const std::optional<FileState> old = StateOf(path);
    if (kill(service, signal) != 0) {
        *error =
            errno == EPERM
                ? StringPrintf("no permission to signal the daemon (pid %d): try as root", service)
                : StringPrintf("cannot signal the daemon (pid %d): %s", service, strerror(errno));
        return std::nullopt;
    }
    const auto end = std::chrono::steady_clock::now() + PATIENCE;
    std::optional<Reading> last;
    while (std::chrono::steady_clock::now() < end) {
        std::optional<Reading> reading = ReadDumpFile(path);
        if (reading && !(old && reading->state == *old) && IsWholeDump(kind, reading->text)) {
            if (last && last->state == reading->state) {
                return std::move(reading->text);
            }
            last = std::move(reading);
        }
        if (signals.wait(STEP)) {
            error->clear();
            return std::nullopt;
        }
        if (kill(service, 0) == -1 && errno == ESRCH) {
            *error = StringPrintf("the daemon (pid %d) has ended", service);
            return std::nullopt;
        }
    }
    *error = WhyNoFile(service, path);
    return std::nullopt;
}

}  // namespace Tesu::Bpf
