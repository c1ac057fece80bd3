// SPDX-License-Identifier: Apache-2.0
//
// The event types that a client can subscribe to, by name and number. Pure; any thread.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "util/result.h"

namespace Tesu::Bpf {

// The name, or the number of a type that has none here.
std::string EventTypeName(uint32_t type);

// Every name with its short form and number, one per line, for a help text.
std::string DescribeEventTypes();

// What the user gave after --type, once or several times: names, short forms or numbers, or lists
// of them with commas; "all" stands for every type. Each type once, in the order given. Fails, with
// a message that lists the names, at the first that is none of these.
Result<std::vector<uint32_t>> ParseEventTypes(const std::vector<std::string>& arguments);

}  // namespace Tesu::Bpf
