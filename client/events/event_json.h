// SPDX-License-Identifier: Apache-2.0
//
// One JSON object per event, for programs. Pure; any thread.
#pragma once

#include <cstdint>
#include <string>

#include "records/event_table.h"

namespace Tesu::Bpf {

// The event's object, on one line without a newline. Every field is there, with its unit in its
// name; the text is ASCII (other characters are \u escapes), bytes that are not UTF-8 become
// U+FFFD. Notifications carry no time: they have "received_ns", monotonic nanoseconds like
// "time_ns".
std::string FormatEventJson(const Event& event, int64_t receivedTime);

}  // namespace Tesu::Bpf
