// SPDX-License-Identifier: Apache-2.0
#include "daemon/properties.h"

#include <android-base/properties.h>
#include <sys/utsname.h>

#include "util/string_util.h"

namespace Tesu::Bpf {

bool ParseProperties(const std::vector<std::string>& arguments, Properties* properties,
                     std::string* error) {
    for (const std::string& argument : arguments) {
        const size_t equals = argument.find('=');
        if (equals == std::string::npos || equals == 0) {
            *error = "\"" + argument + "\" is no property setting, which reads NAME=VALUE";
            return false;
        }
        (*properties)[argument.substr(0, equals)] = argument.substr(equals + 1);
    }
    return true;
}

std::string MajorMinor(const std::string& release) {
    const size_t dot = release.find('.');
    if (dot == std::string::npos) {
        return release;
    }
    size_t end = dot + 1;
    while (end < release.size() && IsDigits(release.substr(end, 1))) {
        ++end;
    }
    const bool isVersion = IsDigits(release.substr(0, dot)) && end > dot + 1;
    return isVersion ? release.substr(0, end) : release;
}

std::string RunningKernelVersion() {
    utsname names{};
    uname(&names);
    return MajorMinor(names.release);
}

bool SetProperties(const Properties& properties, std::string* error) {
    for (const auto& [name, value] : properties) {
        if (!android::base::SetProperty(name, value)) {
            *error = StringPrintf("the property \"%s\" cannot be set to \"%s\"", name.c_str(),
                                  value.c_str());
            return false;
        }
    }
    return true;
}

}  // namespace Tesu::Bpf
