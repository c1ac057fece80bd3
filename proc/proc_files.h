// SPDX-License-Identifier: Apache-2.0
//
// Walks and reads /proc, or a tree that stands in for it.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "proc/proc_text.h"

namespace Tesu::Bpf {

// PROCROOT/PID/ENTRY.
std::string ProcPath(const std::string& procRoot, const std::string& pid, const char* entry);

// The whole file into `text`, whose memory is reused from file to file. False when it cannot be
// opened or, its process having gone since, cannot be read; errno says why.
bool ReadProcFile(const std::string& path, std::string* text);

// Asked before each process whether to go on.
using KeepScanning = std::function<bool()>;

// Calls `visit` with the name of each process (its id in decimal) below `procRoot`, in the order of
// the folder. False when the folder cannot be read.
bool ForEachProcess(const std::string& procRoot, const KeepScanning& keepScanning,
                    const std::function<void(const std::string& pid)>& visit);

// Number of entries of a folder whose name does not begin with a dot: of /proc/PID/fd, the open
// descriptors. Nothing when it cannot be opened.
std::optional<int64_t> CountEntries(const std::string& folder);

}  // namespace Tesu::Bpf
