// SPDX-License-Identifier: Apache-2.0
#include "daemon/properties.h"

#include <sys/utsname.h>

#include <regex>

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
