// SPDX-License-Identifier: Apache-2.0
#include "loader/pin_set.h"

#include <linux/magic.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <cerrno>
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

}  // namespace

std::vector<bpf_map*> MapsToPin(const bpf_object* object) {
    std::vector<bpf_map*> maps;
    bpf_map* map = nullptr;
    bpf_object__for_each_map(map, object) {
        if (!bpf_map__is_internal(map)) {
            maps.push_back(map);
        }
    }
    return maps;
}

bool IsOnBpfFileSystem(const std::string& path) {
    struct statfs fs = {};
    return statfs(path.c_str(), &fs) == 0 && static_cast<uint32_t>(fs.f_type) == BPF_FS_MAGIC;
}

std::set<std::string> ListPins(const std::string& dir) {
    std::set<std::string> pins;
    std::error_code error;
    std::filesystem::directory_iterator entry(dir, error);
    for (; !error && entry != std::filesystem::directory_iterator(); entry.increment(error)) {
        const std::string name = entry->path().filename();
        for (const char* const prefix : {PROGRAM_PREFIX, MAP_PREFIX, LEFT_OUT_PREFIX}) {
            if (name.starts_with(prefix)) {
                pins.insert(name);
            }
        }
    }
    return pins;
}

std::vector<std::string> FindMissingPins(const std::string& dir, const std::string& objectName,
                                         const bpf_object* object) {
    const std::set<std::string> pins = ListPins(dir);
    std::vector<std::string> missing;
    for (const bpf_map* const map : MapsToPin(object)) {
        const std::string name = PinName(MAP_PREFIX, objectName, bpf_map__name(map));
        if (!pins.contains(name)) {
            missing.push_back(name);
        }
    }
    bpf_program* program = nullptr;
    bpf_object__for_each_program(program, object) {
        const char* const programName = bpf_program__name(program);
        const std::string name = PinName(PROGRAM_PREFIX, objectName, programName);
        if (!pins.contains(name) &&
            !pins.contains(PinName(LEFT_OUT_PREFIX, objectName, programName))) {
            missing.push_back(name);
        }
    }
    return missing;
}

Result<> PinObject(const std::string& dir, const std::string& objectName, const bpf_object* object,
                   const LeftOutPrograms& leftOut) {
    const auto pathOf = [&](const char* prefix, const char* name) {
        return dir + "/" + PinName(prefix, objectName, name);
    };
    bpf_program* program = nullptr;
    bpf_object__for_each_program(program, object) {
        const char* const name = bpf_program__name(program);
        const auto reason = leftOut.find(name);
        const bool isLoaded = reason == leftOut.end();
        const std::string path = pathOf(isLoaded ? PROGRAM_PREFIX : LEFT_OUT_PREFIX, name);
        if ((isLoaded ? bpf_program__pin(program, path.c_str())
                      : symlink(reason->second.c_str(), path.c_str())) != 0) {
            return SystemFailure(path);
        }
    }
    for (bpf_map* const map : MapsToPin(object)) {
        const std::string path = pathOf(MAP_PREFIX, bpf_map__name(map));
        if (bpf_map__pin(map, path.c_str()) != 0) {
            return SystemFailure(path);
        }
    }
    return {};
}

Result<> RemovePins(const std::string& dir) {
    for (const std::string& name : ListPins(dir)) {
        const std::string path = std::string(dir).append("/").append(name);
        if (unlink(path.c_str()) != 0) {
            return SystemFailure(path);
        }
    }
    if (rmdir(dir.c_str()) != 0 && errno != ENOENT) {
        return SystemFailure(dir);
    }
    return {};
}

}  // namespace Tesu::Bpf
