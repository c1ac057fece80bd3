// SPDX-License-Identifier: Apache-2.0
//
// What the service needs on the file system of its host.
#pragma once

#include <string>

namespace Tesu::Bpf {

enum class PinState { PRESENT, ABSENT, UNREADABLE };

// Whether the core ring buffer and its status map are pinned below `pinDir`. UNREADABLE: errno says
// why that cannot be known.
PinState FindCorePins(const std::string& pinDir);

// Makes the folders above `path`, with mode 0775, where they are missing. False, with the folder
// that failed in `failed`: errno says why.
bool MakeParents(const std::string& path, std::string* failed);

}  // namespace Tesu::Bpf
