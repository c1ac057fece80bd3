// SPDX-License-Identifier: Apache-2.0
#include "daemon/host_files.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "records/contract.h"

namespace Tesu::Bpf {

namespace {

constexpr const char* CORE_PINS[] = {CORE_RING_MAP, CORE_STATUS_MAP};
constexpr mode_t FOLDER_MODE = 0775;

}  // namespace

PinState FindCorePins(const std::string& pinDir) {
    for (const char* const pin : CORE_PINS) {
        if (access((pinDir + "/" + pin).c_str(), F_OK) != 0) {
            return errno == ENOENT ? PinState::ABSENT : PinState::UNREADABLE;
        }
    }
    return PinState::PRESENT;
}

bool MakeParents(const std::string& path, std::string* failed) {
    for (size_t slash = path.find('/', 1); slash != std::string::npos;
         slash = path.find('/', slash + 1)) {
        const std::string folder = path.substr(0, slash);
        if (mkdir(folder.c_str(), FOLDER_MODE) == 0) {
            // The process's umask is not to take bits away.
            chmod(folder.c_str(), FOLDER_MODE);
        } else if (errno != EEXIST) {
            *failed = folder;
            return false;
        }
    }
    return true;
}

}  // namespace Tesu::Bpf
