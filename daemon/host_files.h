// SPDX-License-Identifier: Apache-2.0
//
// What the service needs on the file system of its host.
#pragma once

#include <string>
#include <system_error>

namespace Tesu::Bpf {

// Whether anything of the core ring buffer is pinned below `pinDir`. False: errno is ENOENT where
// nothing is, and else says why that cannot be known.
bool HasPins(const std::string& pinDir);

// Makes the folders above `path`, with mode 0775 whatever the umask, where they are missing. Before
// other threads are started: it changes the process's umask for a moment.
std::error_code MakeParents(const std::string& path);

}  // namespace Tesu::Bpf
