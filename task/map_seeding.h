// SPDX-License-Identifier: Apache-2.0
//
// Describes what processes already hold, for the maps in which the eBPF programs go on counting.
//
// Each scan takes the root of /proc, or of a tree that stands in for it.
#pragma once

#include <android-base/unique_fd.h>

#include <cstdint>
#include <functional>
#include <string>

#include "proc/proc_files.h"
#include "records/bpf_maps.h"

namespace Tesu::Bpf {

// Hands over the count of open descriptors of each process below `procRoot`. Processes that go
// meanwhile are left out.
void ScanOpenFds(const std::string& procRoot, const KeepScanning& keepScanning,
                 const std::function<void(const OpenFdCaller&)>& take);

// Hands over the dma-bufs that processes map: each mapping, in the order of reading (a later one of
// the same inode replaces the former), and for each process that maps any the sum of its mappings
// in bytes, never 0.
void ScanDmabufs(const std::string& procRoot, const KeepScanning& keepScanning,
                 const std::function<void(uint64_t inode, const DmabufAllocation&)>& takeMapping,
                 const std::function<void(int32_t pid, int64_t total)>& takeTotal);

// A map of the programs, by the name of its pin; -1 and errno where it cannot be opened.
android::base::unique_fd OpenPinnedMap(const char* name);

// Put what a scan finds into the programs' pinned maps. 0; -1, logged, when a map cannot be opened.
int SeedOpenFdMap(const std::string& procRoot, const KeepScanning& keepScanning);
int SeedDmabufMaps(const std::string& procRoot, const KeepScanning& keepScanning);

}  // namespace Tesu::Bpf
