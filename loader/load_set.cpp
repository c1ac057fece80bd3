// SPDX-License-Identifier: Apache-2.0
#include "loader/load_set.h"

#include <android-base/unique_fd.h>
#include <bpf/bpf.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <bit>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <vector>

#include "loader/kernel_peek.h"

namespace Tesu::Bpf {

namespace {

using android::base::unique_fd;

constexpr const char* OBJECT_NAMES[] = {TESU_CORE_OBJECT, TESU_GPL_OBJECT};
constexpr const char* OBJECT_SUFFIX = ".bpf.o";
// Dots are not allowed in names of a bpf file system.
constexpr const char* STAGING_SUFFIX = "_loading";
constexpr mode_t PIN_DIR_MODE = 0755;

LoaderStatus Fail(std::ostream& err, const std::string& what) {
    err << "tesubpfload: " << what << "\n";
    return LOADER_FAILED;
}

// "a/b/" and "a//b" are the same folder.
std::string NormalizeDir(const std::string& dir) {
    std::filesystem::path path = std::filesystem::path(dir).lexically_normal();
    return path.has_filename() ? path : path.parent_path();
}

// Takes the lock that loaders of the same folder share; invalid, with a reason, on failure.
unique_fd LockParent(const std::string& pinDir, std::string* error) {
    std::string parent = std::filesystem::path(pinDir).parent_path();
    if (parent.empty()) {
        parent = ".";
    }
    unique_fd fd(open(parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!fd.ok()) {
        *error = parent + ": " + strerror(errno);
        return {};
    }
    if (!IsOnBpfFileSystem(parent)) {
        *error = parent + " is not on a bpf file system; mount one there (mount -t bpf bpf " +
                 parent + ")";
        return {};
    }
    if (flock(fd.get(), LOCK_EX) != 0) {
        *error = parent + ": " + strerror(errno);
        return {};
    }
    return fd;
}

uint32_t MaxEntries(int mapFd) {
    bpf_map_info info = {};
    uint32_t size = sizeof(info);
    return bpf_obj_get_info_by_fd(mapFd, &info, &size) == 0 ? info.max_entries : 0;
}

uint32_t PinnedRingBytes(const std::string& pinDir, const std::string& objectName) {
    const unique_fd ring(bpf_obj_get((pinDir + "/map_" + objectName + "_ringbuf_map").c_str()));
    return ring.ok() ? MaxEntries(ring.get()) : 0;
}

std::string ObjectPath(const LoadOptions& options, const std::string& name) {
    return options.objectDir + "/" + name + OBJECT_SUFFIX;
}

// What the pin folder lacks; false, with a reason, when an object cannot be opened.
bool FindMissing(const LoadOptions& options, LibbpfLog* log, std::vector<std::string>* missing,
                 std::string* error) {
    for (const std::string name : OBJECT_NAMES) {
        const BpfObject object = OpenObject(ObjectPath(options, name), log, error);
        if (object == nullptr) {
            return false;
        }
        const auto ofObject = FindMissingPins(options.pinDir, name, object.get());
        missing->insert(missing->end(), ofObject.begin(), ofObject.end());
    }
    return true;
}

void TellAlreadyLoaded(const LoadOptions& options, std::ostream& out) {
    out << "already loaded: " << options.pinDir << "\n";
    for (const std::string name : OBJECT_NAMES) {
        const uint32_t bytes = PinnedRingBytes(options.pinDir, name);
        if (options.ringBytes && bytes != *options.ringBytes) {
            out << name << ": its ring buffer has " << bytes << " bytes, not " << *options.ringBytes
                << "; unload to change it\n";
        }
    }
}

void TellLoaded(const std::string& name, const LoadedObject& loaded, std::ostream& out,
                std::ostream& err) {
    size_t programs = 0;
    size_t maps = 0;
    bpf_program* program = nullptr;
    bpf_object__for_each_program(program, loaded.object.get()) {
        programs += bpf_program__fd(program) >= 0 ? 1 : 0;
    }
    bpf_map* map = nullptr;
    bpf_object__for_each_map(map, loaded.object.get()) {
        maps += bpf_map__is_internal(map) ? 0 : 1;
    }
    const int ring = bpf_object__find_map_fd_by_name(loaded.object.get(), "ringbuf_map");
    out << name << ": " << programs << " programs, " << maps << " maps, ring buffer of "
        << MaxEntries(ring) << " bytes\n";
    for (const auto& [programName, reason] : loaded.leftOut) {
        if (bpf_object__find_program_by_name(loaded.object.get(), programName.c_str())) {
            err << "tesubpfload: program " << programName << ": left out: " << reason << "\n";
        }
    }
}

bool LoadAndPin(const LoadOptions& options, const KernelLayout& layout, const std::string& staging,
                LibbpfLog* log, std::ostream& out, std::ostream& err) {
    for (const std::string name : OBJECT_NAMES) {
        LoadedObject loaded;
        std::string error;
        const std::string path = ObjectPath(options, name);
        if (!LoadObject(path, layout.values, layout.unusable, options.ringBytes, log, &loaded,
                        &error)) {
            for (const auto& [program, reason] : loaded.leftOut) {
                err << "tesubpfload: program " << program << ": " << reason << "\n";
            }
            err << "tesubpfload: " << name << ": " << error << "\n";
            return false;
        }
        if (!PinObject(staging, name, loaded, &error)) {
            Fail(err, error);
            return false;
        }
        TellLoaded(name, loaded, out, err);
    }
    return true;
}

// Fills the staging folder and gives it the pin folder's name.
LoaderStatus LoadAnew(const LoadOptions& options, LibbpfLog* log, std::ostream& out,
                      std::ostream& err) {
    const std::string staging = options.pinDir + STAGING_SUFFIX;
    std::string error;
    if (!RemovePins(staging, &error) || !RemovePins(options.pinDir, &error)) {
        return Fail(err, "cannot clear away what is there: " + error);
    }
    const KernelLayout layout = options.findLayout(options, log);
    if (!layout.memberProblem.empty()) {
        err << "tesubpfload: kernel structures unknown: " << layout.memberProblem << "\n";
    } else {
        out << "kernel structures: from " << layout.memberSource << "\n";
    }
    if (mkdir(staging.c_str(), PIN_DIR_MODE) != 0) {
        return Fail(err, staging + ": " + strerror(errno));
    }
    bool done = LoadAndPin(options, layout, staging, log, out, err);
    if (done && rename(staging.c_str(), options.pinDir.c_str()) != 0) {
        Fail(err, options.pinDir + ": " + strerror(errno));
        done = false;
    }
    if (!done) {
        RemovePins(staging, &error);
        return Fail(err, "nothing is loaded");
    }
    out << "pinned in " << options.pinDir << "\n";
    return LOADER_DONE;
}

KernelLayout AskRunningKernel(const LoadOptions& options, LibbpfLog* log) {
    LayoutSources sources;
    sources.peekObject = options.objectDir + "/" + TASK_PEEK_OBJECT;
    return FindKernelLayout(sources, log);
}

}  // namespace

bool IsRingSize(uint64_t bytes, uint64_t pageSize, std::string* error) {
    if (bytes > UINT32_MAX || !std::has_single_bit(bytes) || bytes % pageSize != 0) {
        *error = "a ring buffer's size is a power of two and a multiple of the page size (" +
                 std::to_string(pageSize) + " bytes), and below 4 GiB; not " +
                 std::to_string(bytes);
        return false;
    }
    return true;
}

LoaderStatus LoadSet(const LoadOptions& asked, std::ostream& out, std::ostream& err) {
    LoadOptions options = asked;
    options.pinDir = NormalizeDir(asked.pinDir);
    if (!options.findLayout) {
        options.findLayout = AskRunningKernel;
    }
    std::string error;
    const unique_fd lock = LockParent(options.pinDir, &error);
    if (!lock.ok()) {
        return Fail(err, error);
    }
    LibbpfLog log(options.verbose);
    std::vector<std::string> missing;
    if (!FindMissing(options, &log, &missing, &error)) {
        return Fail(err, error);
    }
    if (missing.empty()) {
        TellAlreadyLoaded(options, out);
        return LOADER_DONE;
    }
    if (!ListPins(options.pinDir).empty()) {
        out << "incomplete set in " << options.pinDir << " (" << missing.size()
            << " missing, the first is " << missing.front() << "): removing it\n";
    }
    return LoadAnew(options, &log, out, err);
}

LoaderStatus UnloadSet(const std::string& pinDir, std::ostream& out, std::ostream& err) {
    const std::string dir = NormalizeDir(pinDir);
    std::string error;
    const unique_fd lock = LockParent(dir, &error);
    if (!lock.ok()) {
        return Fail(err, error);
    }
    const size_t pins = ListPins(dir).size();
    if (!RemovePins(dir + STAGING_SUFFIX, &error) || !RemovePins(dir, &error)) {
        return Fail(err, error);
    }
    if (pins == 0) {
        out << "nothing is loaded: " << dir << "\n";
    } else {
        out << "unloaded: " << pins << " pins removed from " << dir << "\n";
    }
    return LOADER_DONE;
}

}  // namespace Tesu::Bpf
