// SPDX-License-Identifier: Apache-2.0
//
// guest_dmabuf_maps: compares what the service put into the maps of the dma-buf programs with what
// /proc/PID/maps says, read here anew. Prints both where they differ. Exit status: 0 equal and not
// empty.
#include <android-base/unique_fd.h>
#include <bpf/bpf.h>

#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <string>

#include "records/raw_event.h"

namespace {

using Tesu::Bpf::DmabufAllocation;

struct Owned {
    int32_t pid;
    int64_t size;  // bytes
    bool operator==(const Owned&) const = default;
};

struct Dmabufs {
    std::map<uint64_t, Owned> buffers;  // by inode number
    std::map<int32_t, int64_t> totals;  // bytes, by process id
    bool operator==(const Dmabufs&) const = default;
};

void AddMappings(int32_t pid, Dmabufs* found) {
    std::ifstream maps("/proc/" + std::to_string(pid) + "/maps");
    for (std::string line; std::getline(maps, line);) {
        uint64_t start = 0;
        uint64_t end = 0;
        uint64_t inode = 0;
        char path[8] = {};
        if (std::sscanf(line.c_str(), "%" SCNx64 "-%" SCNx64 " %*s %*s %*s %" SCNu64 " %7s", &start,
                        &end, &inode, path) == 4 &&
            std::string(path) == "/dmabuf") {
            const auto size = static_cast<int64_t>(end - start);
            found->buffers[inode] = {pid, size};
            found->totals[pid] += size;
        }
    }
}

Dmabufs ReadProc() {
    Dmabufs found;
    for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
        const int32_t pid = std::atoi(entry.path().filename().c_str());
        if (pid > 0) {
            AddMappings(pid, &found);
        }
    }
    return found;
}

template <class Key, class Value, class Take>
bool ForEachEntry(const char* map, const Take& take) {
    const std::string path = std::string("/sys/fs/bpf/tesu/map_TesuBpfGplDefineset_") + map;
    const android::base::unique_fd fd(bpf_obj_get(path.c_str()));
    if (!fd.ok()) {
        std::perror(path.c_str());
        return false;
    }
    Key key = {};
    const Key* previous = nullptr;
    while (bpf_map_get_next_key(fd.get(), previous, &key) == 0) {
        Value value = {};
        if (bpf_map_lookup_elem(fd.get(), &key, &value) == 0) {
            take(key, value);
        }
        previous = &key;
    }
    return true;
}

bool ReadKernel(Dmabufs* found) {
    return ForEachEntry<uint64_t, DmabufAllocation>(
               "dmabuf_allocate_map",
               [&](uint64_t inode, const DmabufAllocation& allocation) {
                   found->buffers[inode] = {allocation.pid, allocation.size};
               }) &&
           ForEachEntry<int32_t, int64_t>(
               "dmabuf_size_map", [&](int32_t pid, int64_t total) { found->totals[pid] = total; });
}

void Print(const char* source, const Dmabufs& found) {
    std::cout << source << ":\n";
    for (const auto& [inode, owned] : found.buffers) {
        std::cout << "  buffer " << inode << ": " << owned.size << " bytes of " << owned.pid
                  << "\n";
    }
    for (const auto& [pid, total] : found.totals) {
        std::cout << "  process " << pid << ": " << total << " bytes\n";
    }
}

}  // namespace

int main() {
    const Dmabufs fromProc = ReadProc();
    Dmabufs fromKernel;
    if (ReadKernel(&fromKernel) && fromProc == fromKernel && !fromProc.buffers.empty()) {
        return EXIT_SUCCESS;
    }
    Print("/proc", fromProc);
    Print("maps of the programs", fromKernel);
    return EXIT_FAILURE;
}
