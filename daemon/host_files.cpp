// SPDX-License-Identifier: Apache-2.0
#include "daemon/host_files.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "records/contract.h"

namespace Tesu::Bpf {

namespace {

constexpr const char* CORE_PINS[] = {CORE_RING_MAP, CORE_STATUS_MAP};

}  // namespace

PinState FindCorePins(const std::string& pinDir) {
    for (const char* const pin : CORE_PINS) {
        if (access((pinDir + "/" + pin).c_str(), F_OK) != 0) {
            return errno == ENOENT ? PinState::ABSENT : PinState::UNREADABLE;
        }
    }
    return PinState::PRESENT;
}

std::error_code MakeParents(const std::string& path) {
    std::error_code error;
    const mode_t mask = umask(0002);
    std::filesystem::create_directories(std::filesystem::path(path).parent_path(), error);
    umask(mask);
    return error;
}

}  // namespace Tesu::Bpf
