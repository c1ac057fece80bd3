// SPDX-License-Identifier: Apache-2.0
//
// How a dump reaches its file.
#pragma once

#include <string>

namespace Tesu::Bpf {

// Removes the file at `path` and creates it anew (mode 0644, its folder with mode 0775 when that
// alone is missing) with the given text, written in one go: a reader that sees the last line sees
// all. False when it could not be created, errno says why; write errors are not reported. Any
// thread; one file is written at a time.
bool ReplaceDumpFile(const std::string& path, const std::string& text);

}  // namespace Tesu::Bpf
