// SPDX-License-Identifier: Apache-2.0
#include "daemon/properties.h"

#include <grp.h>
#include <sys/utsname.h>

#include <regex>

#include "records/contract.h"

namespace Tesu::Bpf {

Result<Properties> ParseProperties(const std::vector<std::string>& arguments) {
    Properties properties;
    for (const std::string& argument : arguments) {
        const size_t equals = argument.find('=');
        if (equals == std::string::npos || equals == 0) {
            return Failure("\"" + argument + "\" is no property setting, which reads NAME=VALUE");
        }
        properties[argument.substr(0, equals)] = argument.substr(equals + 1);
    }
    return properties;
}

Result<> AdmitGroup(const std::string& group, Properties* properties) {
    const struct group* const entry = getgrnam(group.c_str());
    if (entry == nullptr) {
        return Failure("there is no group \"" + group + "\"");
    }
    std::string& gids = (*properties)[CLIENT_GIDS_PROPERTY];
    gids += (gids.empty() ? "" : ",") + std::to_string(entry->gr_gid);
    properties->try_emplace(CLIENT_UIDS_PROPERTY, "0");
    return {};
}

std::string MajorMinor(const std::string& release) {
    std::smatch version;
    const std::regex twoNumbers("^[0-9]+\\.[0-9]+");
    return std::regex_search(release, version, twoNumbers) ? version.str() : release;
}

std::string RunningKernelVersion() {
    utsname names{};
    uname(&names);
    return MajorMinor(names.release);
}

}  // namespace Tesu::Bpf
