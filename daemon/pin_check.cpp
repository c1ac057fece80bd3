// SPDX-License-Identifier: Apache-2.0
#include "daemon/pin_check.h"

#include <android-base/unique_fd.h>
#include <bpf/bpf.h>
#include <linux/capability.h>
#include <linux/magic.h>
#include <sys/syscall.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <iterator>
#include <vector>

#include "records/bpf_maps.h"
#include "records/contract.h"
#include "util/string_util.h"

namespace Tesu::Bpf {

namespace {

constexpr const char* NO_RIGHT =
    "no right to use eBPF: CAP_BPF and CAP_PERFMON are needed, or CAP_SYS_ADMIN";

struct ExpectedMap {
    const char* name;
    bpf_map_type type;
    uint32_t keySize;    // bytes
    uint32_t valueSize;  // bytes
    uint32_t leastEntries = 1;
    bool isOptional = false;
};

constexpr ExpectedMap CORE_MAPS[] = {
    {CORE_RING_MAP, BPF_MAP_TYPE_RINGBUF, 0, 0},
    {CORE_CURRENT_RING_MAP, BPF_MAP_TYPE_ARRAY_OF_MAPS, 4, 4, 1, true},
    {CORE_POLLED_MAP, BPF_MAP_TYPE_ARRAY, 4, 4, 1, true},
    {CORE_STATUS_MAP, BPF_MAP_TYPE_ARRAY, 4, 8, RING_LOST_RECORDS},
    {OPEN_FD_MAP, BPF_MAP_TYPE_HASH, 4, sizeof(OpenFdCaller)},
};
constexpr ExpectedMap GPL_MAPS[] = {
    {GPL_RING_MAP, BPF_MAP_TYPE_RINGBUF, 0, 0},
    {GPL_CURRENT_RING_MAP, BPF_MAP_TYPE_ARRAY_OF_MAPS, 4, 4, 1, true},
    {GPL_POLLED_MAP, BPF_MAP_TYPE_ARRAY, 4, 4, 1, true},
    {GPL_STATUS_MAP, BPF_MAP_TYPE_ARRAY, 4, 8, RING_LOST_RECORDS},
    {DMABUF_ALLOCATE_MAP, BPF_MAP_TYPE_HASH, 8, sizeof(DmabufAllocation)},
    {DMABUF_SIZE_MAP, BPF_MAP_TYPE_HASH, 4, 8},
};

Result<> CheckMap(const std::string& path, const ExpectedMap& expected) {
    const android::base::unique_fd map(bpf_obj_get(path.c_str()));
    if (!map.ok()) {
        if (errno == ENOENT && expected.isOptional) {
            return {};
        }
        return errno == ENOENT  ? Failure(path + " is missing")
               : errno == EPERM ? Failure(path + ": " + NO_RIGHT)
                                : SystemFailure(path);
    }
    bpf_map_info info = {};
    uint32_t size = sizeof(info);
    if (bpf_obj_get_info_by_fd(map.get(), &info, &size) != 0) {
        return SystemFailure(path);
    }
    if (info.type != expected.type || info.key_size != expected.keySize ||
        info.value_size != expected.valueSize || info.max_entries < expected.leastEntries) {
        return Failure(path + StringPrintf(" is of another build: its type is %u, with keys of %u "
                                           "and values of %u bytes, not %u with %u and %u",
                                           info.type, info.key_size, info.value_size, expected.type,
                                           expected.keySize, expected.valueSize));
    }
    return {};
}

bool HasCapability(const std::array<__user_cap_data_struct, 2>& sets, uint32_t capability) {
    return (sets[CAP_TO_INDEX(capability)].effective & CAP_TO_MASK(capability)) != 0;
}

}  // namespace

Result<> CheckBpfAccess(const std::string& pinDir) {
    const std::string mountPoint = std::filesystem::path(pinDir).parent_path();
    struct statfs fileSystem = {};
    if (statfs(mountPoint.c_str(), &fileSystem) != 0) {
        return SystemFailure(mountPoint);
    }
    if (static_cast<uint32_t>(fileSystem.f_type) != BPF_FS_MAGIC) {
        return Failure(mountPoint + " is no bpf file system: mount -t bpf bpf " + mountPoint);
    }
    __user_cap_header_struct header = {.version = _LINUX_CAPABILITY_VERSION_3, .pid = 0};
    std::array<__user_cap_data_struct, 2> sets = {};
    if (syscall(SYS_capget, &header, sets.data()) != 0) {
        return SystemFailure("capabilities");
    }
    const bool mayUse = HasCapability(sets, CAP_SYS_ADMIN) ||
                        (HasCapability(sets, CAP_BPF) && HasCapability(sets, CAP_PERFMON));
    return mayUse ? Result<>() : Failure(NO_RIGHT);
}

Result<> CheckPins(const std::string& pinDir, bool withGplSet) {
    std::vector<ExpectedMap> maps(std::begin(CORE_MAPS), std::end(CORE_MAPS));
    if (withGplSet) {
        maps.insert(maps.end(), std::begin(GPL_MAPS), std::end(GPL_MAPS));
    }
    for (const ExpectedMap& map : maps) {
        if (auto result = CheckMap(std::string(pinDir).append("/").append(map.name), map);
            !result) {
            return result;
        }
    }
    return {};
}

}  // namespace Tesu::Bpf
