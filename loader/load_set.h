// SPDX-License-Identifier: Apache-2.0
//
// Loads both objects and pins them, or removes what was pinned. What is done is reported in lines
// on `out`, what is wrong on `err`.
//
// The pins appear all at once: they are made in a folder beside the pin folder, which then takes
// its name. So whoever finds one pin finds them all. Loaders that run at the same time wait for
// each other.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <ostream>
#include <string>

#include "loader/kernel_layout.h"
#include "records/contract.h"
#include "util/result.h"

namespace Tesu::Bpf {

// The loader's exit status.
enum LoaderStatus {
    LOADER_DONE = 0,    // loaded, or already so; some programs may be left out
    LOADER_FAILED = 1,  // nothing was loaded: a map failed, or all programs of an object
    LOADER_USAGE = 2,
};

struct LoadOptions {
    std::string pinDir = PIN_DIR;
    std::optional<uint32_t> ringBytes;  // of both ring buffers; else each object's own
    std::optional<uint32_t> rssStep;    // TesuKernelLayout::rssStep; else 0
    bool verbose = false;               // libbpf's log on the standard error
    std::function<KernelLayout()> findLayout = [] { return FindKernelLayout(); };
};

// A failure where a ring buffer cannot have this size.
Result<> CheckRingSize(uint64_t bytes, uint64_t pageSize);

LoaderStatus LoadSet(LoadOptions options, std::ostream& out, std::ostream& err);
LoaderStatus UnloadSet(const std::string& pinDir, std::ostream& out, std::ostream& err);

}  // namespace Tesu::Bpf
