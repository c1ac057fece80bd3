// SPDX-License-Identifier: Apache-2.0
#include "loader/load_set.h"

#include <android-base/unique_fd.h>
#include <bpf/bpf.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <bit>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <vector>

#include "loader/pin_set.h"

namespace Tesu::Bpf {

namespace {

using android::base::unique_fd;

// Dots are not allowed in names of a bpf file system.
constexpr const char* STAGING_SUFFIX = "_loading";
constexpr mode_t PIN_DIR_MODE = 0755;

int PrintLog(libbpf_print_level /*level*/, const char* format, va_list arguments) {
    return std::vfprintf(stderr, format, arguments);
}

LoaderStatus Fail(std::ostream& err, const std::string& what) {
    err << "tesubpfload: " << what << "\n";
    return LOADER_FAILED;
}

// "a/b/" and "a//b" are the same folder.
std::string NormalizeDir(const std::string& dir) {
    std::filesystem::path path = std::filesystem::path(dir).lexically_normal();
    return path.has_filename() ? path : path.parent_path();
}

// Takes the lock that loaders of the same folder share.
Result<unique_fd> LockParent(const std::string& pinDir) {
    std::string parent = std::filesystem::path(pinDir).parent_path();
    if (parent.empty()) {
        parent = ".";
    }
    unique_fd fd(open(parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!fd.ok()) {
        return SystemFailure(parent);
    }
    if (!IsOnBpfFileSystem(parent)) {
        return Failure(parent + " is not on a bpf file system; mount one there (mount -t bpf bpf " +
                       parent + ")");
    }
    if (flock(fd.get(), LOCK_EX) != 0) {
        return SystemFailure(parent);
    }
    return fd;
}

// 0 where that cannot be known.
uint32_t PinnedRingBytes(const std::string& path) {
    const unique_fd ring(bpf_obj_get(path.c_str()));
    bpf_map_info info = {};
    uint32_t size = sizeof(info);
    return bpf_obj_get_info_by_fd(ring.get(), &info, &size) == 0 ? info.max_entries : 0;
}

// The constants of the pinned programs; 0 where they are of a loader that knew no step.
uint32_t PinnedRssStep(const std::string& pinDir) {
    const unique_fd program(
        bpf_obj_get((pinDir + "/prog_" TESU_CORE_OBJECT "_tracepoint_kmem_rss_stat").c_str()));
    uint32_t maps[64] = {};
    bpf_prog_info info = {};
    info.nr_map_ids = std::size(maps);
    info.map_ids = reinterpret_cast<uintptr_t>(maps);
    uint32_t size = sizeof(info);
    if (bpf_obj_get_info_by_fd(program.get(), &info, &size) != 0) {
        return 0;
    }
    for (size_t i = 0; i < info.nr_map_ids && i < std::size(maps); ++i) {
        const unique_fd map(bpf_map_get_fd_by_id(maps[i]));
        bpf_map_info mapInfo = {};
        size = sizeof(mapInfo);
        const uint32_t key = 0;
        TesuKernelLayout layout = {};
        if (bpf_obj_get_info_by_fd(map.get(), &mapInfo, &size) == 0 &&
            mapInfo.name == std::string(TESU_LAYOUT_SECTION) &&
            mapInfo.value_size == sizeof(layout) &&
            bpf_map_lookup_elem(map.get(), &key, &layout) == 0) {
            return layout.rssStep;
        }
    }
    return 0;
}

// What the pin folder lacks.
Result<std::vector<std::string>> FindMissing(const std::string& pinDir) {
    std::vector<std::string> missing;
    for (const ObjectImage& image : {CORE_OBJECT, GPL_OBJECT}) {
        const auto object = OpenObject(image);
        if (!object) {
            return Failure(object.error());
        }
        const auto ofObject = FindMissingPins(pinDir, image.name, object->get());
        missing.insert(missing.end(), ofObject.begin(), ofObject.end());
    }
    return missing;
}

void ReportAlreadyLoaded(const LoadOptions& options, std::ostream& out) {
    out << "already loaded: " << options.pinDir << "\n";
    for (const std::string name : {TESU_CORE_OBJECT, TESU_GPL_OBJECT}) {
        const uint32_t bytes = PinnedRingBytes(options.pinDir + "/map_" + name + "_ringbuf_map");
        if (options.ringBytes && bytes != *options.ringBytes) {
            out << name << ": its ring buffer has " << bytes << " bytes, not " << *options.ringBytes
                << "; unload to change it\n";
        }
    }
    const uint32_t step = PinnedRssStep(options.pinDir);
    if (options.rssStep && step != *options.rssStep) {
        out << TESU_CORE_OBJECT << ": its step of memory is " << step << " bytes, not "
            << *options.rssStep << "; unload to change it\n";
    }
}

void ReportLoaded(const char* name, const bpf_object* object, const LeftOutPrograms& leftOut,
                  std::ostream& out, std::ostream& err) {
    size_t programs = 0;
    bpf_program* program = nullptr;
    bpf_object__for_each_program(program, object) {
        programs += bpf_program__fd(program) >= 0 ? 1 : 0;
    }
    const bpf_map* const ring = bpf_object__find_map_by_name(object, "ringbuf_map");
    out << name << ": " << programs << " programs, " << MapsToPin(object).size()
        << " maps, ring buffer of " << bpf_map__max_entries(ring) << " bytes\n";
    for (const auto& [programName, reason] : leftOut) {
        if (bpf_object__find_program_by_name(object, programName.c_str())) {
            err << "tesubpfload: program " << programName << ": left out: " << reason << "\n";
        }
    }
}

Result<> LoadAndPin(const LoadOptions& options, const KernelLayout& layout,
                    const std::string& staging, std::ostream& out, std::ostream& err) {
    for (const ObjectImage& image : {CORE_OBJECT, GPL_OBJECT}) {
        LeftOutPrograms leftOut = layout.unusable;
        const auto object = LoadObject(image, layout.values, options.ringBytes, &leftOut);
        if (!object) {
            for (const auto& [program, reason] : leftOut) {
                err << "tesubpfload: program " << program << ": " << reason << "\n";
            }
            return Failure(std::string(image.name) + ": " + object.error());
        }
        if (auto pinned = PinObject(staging, image.name, object->get(), leftOut); !pinned) {
            return pinned;
        }
        ReportLoaded(image.name, object->get(), leftOut, out, err);
    }
    return {};
}

// Removes the folders of the set.
Result<> RemoveSet(const std::string& pinDir) {
    const auto staging = RemovePins(pinDir + STAGING_SUFFIX);
    return staging ? RemovePins(pinDir) : staging;
}

// Fills the staging folder and gives it the pin folder's name.
LoaderStatus LoadAnew(const LoadOptions& options, std::ostream& out, std::ostream& err) {
    const std::string staging = options.pinDir + STAGING_SUFFIX;
    if (const auto removed = RemoveSet(options.pinDir); !removed) {
        return Fail(err, "cannot clear away what is there: " + removed.error());
    }
    KernelLayout layout = options.findLayout();
    layout.values.rssStep = options.rssStep.value_or(0);
    if (!layout.memberProblem.empty()) {
        err << "tesubpfload: kernel structures unknown: " << layout.memberProblem << "\n";
    } else {
        out << "kernel structures: from " << layout.memberSource << "\n";
    }
    if (mkdir(staging.c_str(), PIN_DIR_MODE) != 0) {
        return Fail(err, staging + ": " + strerror(errno));
    }
    Result<> done = LoadAndPin(options, layout, staging, out, err);
    if (done && rename(staging.c_str(), options.pinDir.c_str()) != 0) {
        done = SystemFailure(options.pinDir);
    }
    if (!done) {
        (void)RemovePins(staging);
        Fail(err, done.error());
        return Fail(err, "nothing is loaded");
    }
    out << "pinned in " << options.pinDir << "\n";
    return LOADER_DONE;
}

}  // namespace

Result<> CheckRingSize(uint64_t bytes, uint64_t pageSize) {
    if (bytes > UINT32_MAX || !std::has_single_bit(bytes) || bytes % pageSize != 0) {
        return Failure("a ring buffer's size is a power of two and a multiple of the page size (" +
                       std::to_string(pageSize) + " bytes), and below 4 GiB; not " +
                       std::to_string(bytes));
    }
    return {};
}

LoaderStatus LoadSet(LoadOptions options, std::ostream& out, std::ostream& err) {
    options.pinDir = NormalizeDir(options.pinDir);
    const auto lock = LockParent(options.pinDir);
    if (!lock) {
        return Fail(err, lock.error());
    }
    libbpf_set_print(options.verbose ? PrintLog : nullptr);
    const auto missing = FindMissing(options.pinDir);
    if (!missing) {
        return Fail(err, missing.error());
    }
    if (missing->empty()) {
        ReportAlreadyLoaded(options, out);
        return LOADER_DONE;
    }
    if (!ListPins(options.pinDir).empty()) {
        out << "incomplete set in " << options.pinDir << " (" << missing->size()
            << " missing, the first is " << missing->front() << "): removing it\n";
    }
    return LoadAnew(options, out, err);
}

LoaderStatus UnloadSet(const std::string& pinDir, std::ostream& out, std::ostream& err) {
    const std::string dir = NormalizeDir(pinDir);
    const auto lock = LockParent(dir);
    if (!lock) {
        return Fail(err, lock.error());
    }
    const size_t pins = ListPins(dir).size();
    if (const auto removed = RemoveSet(dir); !removed) {
        return Fail(err, removed.error());
    }
    if (pins == 0) {
        out << "nothing is loaded: " << dir << "\n";
    } else {
        out << "unloaded: " << pins << " pins removed from " << dir << "\n";
    }
    return LOADER_DONE;
}

}  // namespace Tesu::Bpf
