// SPDX-License-Identifier: Apache-2.0
#include "daemon/host_files.h"

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "records/contract.h"

namespace Tesu::Bpf {

bool HasPins(const std::string& pinDir) {
    return access((pinDir + "/" + CORE_RING_MAP).c_str(), F_OK) == 0 ||
           access((pinDir + "/" + CORE_STATUS_MAP).c_str(), F_OK) == 0;
}

std::error_code MakeParents(const std::string& path) {
    std::error_code error;
    const mode_t mask = umask(0002);
    std::filesystem::create_directories(std::filesystem::path(path).parent_path(), error);
    umask(mask);
    return error;
}

}  // namespace Tesu::Bpf
