// SPDX-License-Identifier: Apache-2.0
//
// System properties on a host that has none: they live in the process, without a lock, and must all
// be set before the service starts.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "util/result.h"

namespace Tesu::Bpf {

using Properties = std::map<std::string, std::string>;

// From "NAME=VALUE" arguments, a later one replacing an earlier; the value may be empty and may
// hold further "=". Fails at the first that is malformed.
Result<Properties> ParseProperties(const std::vector<std::string>& arguments);

// Lets root and the members of the group named be clients, and of others only those whom the
// properties let in already. Fails where there is no such group.
Result<> AdmitGroup(const std::string& group, Properties* properties);

// "6.18" of the kernel release "6.18.44-cloud-amd64"; the whole text when it does not begin with
// two numbers.
std::string MajorMinor(const std::string& release);

// The same of the running kernel.
std::string RunningKernelVersion();

}  // namespace Tesu::Bpf
