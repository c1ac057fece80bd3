// SPDX-License-Identifier: Apache-2.0
//
// The service's dump files as text: whether one is whole, and how to show it. Pure; any thread.
#pragma once

#include <string>
#include <string_view>

namespace Tesu::Bpf {

enum class DumpKind {
    COUNTERS,
    TASKS_FULL,
    TASKS_FULL_NO_KERNEL,
    TASKS_NORMAL,
    TASKS_NORMAL_NO_KERNEL,
};

// Whether the text is a dump of this kind from its first line to its last. Both formats tell in
// their head how many rows there are; a dump that leaves kernel tasks out may have fewer, so of
// such a one only the end of its last row can be checked. Names with line ends do not deceive it.
bool IsWholeDump(DumpKind kind, std::string_view text);

// The text with nothing in it that would act on a terminal; its lines stay lines.
std::string EscapeDump(std::string_view text);

}  // namespace Tesu::Bpf
