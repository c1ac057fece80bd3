// SPDX-License-Identifier: Apache-2.0
//
// Where a kernel puts the fields of a tracepoint's record, from the description in its tracing file
// system, events/<category>/<name>/format.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "util/result.h"

namespace Tesu::Bpf {

inline constexpr const char* TRACEFS_ROOT = "/sys/kernel/tracing";

struct TracepointField {
    std::string name;  // without array brackets
    std::string type;  // as written, "char[]" or "pid_t" for example
    uint32_t offset = 0;
    uint32_t size = 0;
    bool isLocated = false;  // __data_loc: the field is a word with the place of its data
};

using TracepointFormat = std::vector<TracepointField>;

// The field of that name, or null.
const TracepointField* FindField(const TracepointFormat& format, std::string_view name);

// A failure where there is no field in the text or a field's line does not make sense.
Result<TracepointFormat> ParseTracepointFormat(std::string_view text);

// Reads and parses the format of a tracepoint ("sched/sched_switch") below `tracefsRoot`.
Result<TracepointFormat> ReadTracepointFormat(const std::string& tracefsRoot,
                                              const std::string& tracepoint);

}  // namespace Tesu::Bpf
