// SPDX-License-Identifier: Apache-2.0
//
// Loads both objects and pins them, or removes what was pinned. What is done is told in lines on
// `out`, what is wrong on `err`.
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

#include "loader/kernel_layout_finder.h"
#include "loader/libbpf_log.h"
#include "loader/pin_set.h"
#include "records/contract.h"

namespace Tesu::Bpf {

// The loader's exit status.
enum LoaderStatus {
    LOADER_DONE = 0,    // loaded, or already so; some programs may be left out
    LOADER_FAILED = 1,  // nothing was loaded: a map failed, or all programs of an object
    LOADER_USAGE = 2,
};

struct LoadOptions {
    std::string objectDir;
    std::string pinDir = PIN_DIR;
    std::optional<uint32_t> ringBytes;  // of both ring buffers; else each object's own
    bool verbose = false;               // libbpf's log on the standard error
    // Where the kernel's layout is from; by default the running kernel is asked.
    std::function<KernelLayout(const LoadOptions&, LibbpfLog*)> findLayout;
};

// Whether a ring buffer can have this size; if not, `error` says why.
bool IsRingSize(uint64_t bytes, uint64_t pageSize, std::string* error);

LoaderStatus LoadSet(const LoadOptions& options, std::ostream& out, std::ostream& err);
LoaderStatus UnloadSet(const std::string& pinDir, std::ostream& out, std::ostream& err);

}  // namespace Tesu::Bpf
