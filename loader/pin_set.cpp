// SPDX-License-Identifier: Apache-2.0
#include "loader/pin_set.h"

#include <linux/magic.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>

namespace Tesu::Bpf {

namespace {

constexpr const char* PROGRAM_PREFIX = "prog_";
constexpr const char* MAP_PREFIX = "map_";
constexpr const char* LEFT_OUT_PREFIX = "left_out_";

std::string PinName(const char* prefix, const std::string& objectName, const char* name) {
    return prefix + objectName + "_" + name;
}

bool Exists(const std::string& path) {
    std::error_code error;
    return std::filesystem::exists(std::filesystem::symlink_status(path, error));
}

// libbpf's own maps, of constants and variables, are not pinned.
bool IsToBePinned(const bpf_map* map) {
    return !bpf_map__is_internal(map);
}

std::string PinPath(const std::string& dir, const std::string& pinName) {
    return std::string(dir).append("/").append(pinName);
}

auto Fail(const std::string& path, int errorNumber) {
    return Failure(path + ": " + strerror(errorNumber));
}

}  // namespace

bool IsOnBpfFileSystem(const std::string& path) {
    struct statfs fs = {};
    return statfs(path.c_str(), &fs) == 0 && static_cast<uint32_t>(fs.f_type) == BPF_FS_MAGIC;
}

std::vector<std::string> ListPins(const std::string& dir) {
    std::vector<std::string> pins;
    std::error_code error;
    std::filesystem::directory_iterator entry(dir, error);
    for (; !error && entry != std::filesystem::directory_iterator(); entry.increment(error)) {
        const std::string name = entry->path().filename();
        for (const char* const prefix : {PROGRAM_PREFIX, MAP_PREFIX, LEFT_OUT_PREFIX}) {
            if (name.starts_with(prefix)) {
                pins.push_back(name);
            }
        }
    }
    return pins;
}

std::vector<std::string> FindMissingPins(const std::string& dir, const std::string& objectName,
                                         const bpf_object* object) {
    std::vector<std::string> missing;
    bpf_map* map = nullptr;
    bpf_object__for_each_map(map, object) {
        const std::string name = PinName(MAP_PREFIX, objectName, bpf_map__name(map));
        if (IsToBePinned(map) && !Exists(PinPath(dir, name))) {
            missing.push_back(name);
        }
    }
    bpf_program* program = nullptr;
    bpf_object__for_each_program(program, object) {
        const char* const programName = bpf_program__name(program);
        const std::string name = PinName(PROGRAM_PREFIX, objectName, programName);
        if (!Exists(PinPath(dir, name)) &&
            !Exists(PinPath(dir, PinName(LEFT_OUT_PREFIX, objectName, programName)))) {
            missing.push_back(name);
        }
    }
    return missing;
}

Result<> PinObject(const std::string& dir, const std::string& objectName, const bpf_object* object,
                   const LeftOutPrograms& leftOut) {
    bpf_program* program = nullptr;
    bpf_object__for_each_program(program, object) {
        const char* const name = bpf_program__name(program);
        const auto reason = leftOut.find(name);
        if (reason != leftOut.end()) {
            const std::string path = PinPath(dir, PinName(LEFT_OUT_PREFIX, objectName, name));
            if (symlink(reason->second.c_str(), path.c_str()) != 0) {
                return Fail(path, errno);
            }
            continue;
        }
        const std::string path = PinPath(dir, PinName(PROGRAM_PREFIX, objectName, name));
        if (const int result = bpf_program__pin(program, path.c_str()); result != 0) {
            return Fail(path, -result);
        }
    }
    bpf_map* map = nullptr;
    bpf_object__for_each_map(map, object) {
        if (!IsToBePinned(map)) {
            continue;
        }
        const std::string path = PinPath(dir, PinName(MAP_PREFIX, objectName, bpf_map__name(map)));
        if (const int result = bpf_map__pin(map, path.c_str()); result != 0) {
            return Fail(path, -result);
        }
    }
    return {};
}

Result<> RemovePins(const std::string& dir) {
    for (const std::string& name : ListPins(dir)) {
        const std::string path = PinPath(dir, name);
        if (unlink(path.c_str()) != 0) {
            return Fail(path, errno);
        }
    }
    if (rmdir(dir.c_str()) != 0 && errno != ENOENT) {
        return Fail(dir, errno);
    }
    return {};
}

}  // namespace Tesu::Bpf
