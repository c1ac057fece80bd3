// SPDX-License-Identifier: Apache-2.0
//
// The event types that a client can subscribe to, by name and number. Pure; any thread.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace Tesu::Bpf {

// The name of an event type, e.g. "task-create"; nullptr for a type that is none.
const char* EventTypeName(uint32_t type);

// The kind of memory of an RSS record, e.g. "anon", and the kind of task of a create or exit
// record, "process" or "thread"; nullptr for a number that is none.
const char* RssMemberName(int32_t member);
const char* TaskTypeName(int32_t taskType);

// Every name with its short form and number, one per line, for a help text.
std::string DescribeEventTypes();

// What the user gave after --type, once or several times: names, short forms or numbers, or lists
// of them with commas; "all" stands for every type. Appends each type once, in the order given.
// False, with a message that lists the names in `error`, at the first that is none of these.
bool ParseEventTypes(const std::vector<std::string>& arguments, std::vector<int>* types,
                     std::string* error);

}  // namespace Tesu::Bpf
