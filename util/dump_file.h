// SPDX-License-Identifier: Apache-2.0
//
// How a dump reaches its file.
#pragma once

#include <string>

namespace Tesu::Bpf {

// What the name of a file has behind it until the file is whole.
inline constexpr const char* DUMP_BESIDE_SUFFIX = ".new";

// Removes the file at `path`, writes the given text beside it (mode 0644, its folder with mode 0775
// when that alone is missing) and puts it in place: whoever opens the file sees all of it. False
// when it could not be created, errno says why; a write error is logged here, and leaves no file:
// whoever watches the folder sees the one beside go. Any thread; one file is written at a time.
bool ReplaceDumpFile(const std::string& path, const std::string& text);

}  // namespace Tesu::Bpf
