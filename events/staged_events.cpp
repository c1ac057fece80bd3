// SPDX-License-Identifier: Apache-2.0
#include "events/staged_events.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "ipc/ipc_package.h"

namespace Tesu::Bpf {

namespace {

// A frame holds at least its three head words and an event's type.
constexpr size_t LEAST_FRAME_SIZE = 16;

}  // namespace

// Room for all that is there when it becomes full, so that nothing allocates or fails later.
void StagedEvents::reserve() {
    entries.reserve(FULL_BYTES / LEAST_FRAME_SIZE + 1);
    stagedTypes.reserve(entries.capacity());
    wantedTypes.reserve(entries.capacity());
    frames = std::make_unique_for_overwrite<char[]>(CAPACITY);
}

void StagedEvents::add(int32_t type, const char* event, unsigned size) {
    if (frames == nullptr) {
        reserve();
    }
    const uint32_t head[] = {IPC_PACKAGE_HEADER_SIZE + size, IPC_PACKAGE_EVENT, size};
    if (sizeof(head) + size > CAPACITY - used) {
        throw std::bad_alloc();  // full, and could not be handed out
    }
    char* const frame = frames.get() + used;
    std::memcpy(frame, head, sizeof(head));
    std::memcpy(frame + sizeof(head), event, size);
    used += sizeof(head) + size;
    entries.push_back({.end = static_cast<uint32_t>(used), .typeIndex = indexOf(type)});
}

void StagedEvents::clear() {
    used = 0;
    entries.clear();
    stagedTypes.clear();
}

uint32_t StagedEvents::indexOf(int32_t type) {
    const auto found = std::find(stagedTypes.begin(), stagedTypes.end(), type);
    const auto index = static_cast<uint32_t>(found - stagedTypes.begin());
    if (found == stagedTypes.end()) {
        stagedTypes.push_back(type);
    }
    return index;
}

bool StagedEvents::hasAny(const std::vector<int32_t>& wanted) const {
    return std::any_of(stagedTypes.begin(), stagedTypes.end(), [&](int32_t type) {
        return std::binary_search(wanted.begin(), wanted.end(), type);
    });
}

size_t StagedEvents::count(const std::vector<int32_t>& wanted) const {
    return static_cast<size_t>(
        std::count_if(entries.begin(), entries.end(), [&](const Entry& entry) {
            return std::binary_search(wanted.begin(), wanted.end(), stagedTypes[entry.typeIndex]);
        }));
}

StagedEvents::Copied StagedEvents::copy(const std::vector<int32_t>& wanted, char* to) {
    wantedTypes.clear();
    for (const int32_t type : stagedTypes) {
        wantedTypes.push_back(std::binary_search(wanted.begin(), wanted.end(), type) ? 1 : 0);
    }
    if (std::find(wantedTypes.begin(), wantedTypes.end(), 0) == wantedTypes.end()) {
        std::memcpy(to, frames.get(), used);
        return {.bytes = used, .count = entries.size()};
    }
    Copied copied;
    uint32_t begin = 0;
    for (const Entry& entry : entries) {
        if (wantedTypes[entry.typeIndex] != 0) {
            std::memcpy(to + copied.bytes, frames.get() + begin, entry.end - begin);
            copied.bytes += entry.end - begin;
            ++copied.count;
        }
        begin = entry.end;
    }
    return copied;
}

}  // namespace Tesu::Bpf
