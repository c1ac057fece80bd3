// SPDX-License-Identifier: Apache-2.0
//
// The events that a thread has appended and not yet handed out, as the frames that clients will
// get. Staging takes no lock. Belongs to its thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "ipc/ipc_package.h"

namespace Tesu::Bpf {

class StagedEvents {
  public:
    // The largest event that fits a connection's write buffer.
    static constexpr unsigned MAX_EVENT_SIZE = IPC_MAX_PACKAGE_SIZE - IPC_PACKAGE_HEADER_SIZE;

    // Copies an event of at most that size. The first one throws where memory has run out.
    void add(int32_t type, const char* event, unsigned size);
    // Enough for a send.
    bool isFull() const { return frames.size() >= FULL_BYTES; }
    bool isEmpty() const { return entries.empty(); }
    void clear();

    size_t bytes() const { return frames.size(); }
    // Each type that is there, once.
    const std::vector<int32_t>& types() const { return stagedTypes; }

    // Whether there are events of these types, which are in ascending order, and how many.
    bool hasAny(const std::vector<int32_t>& wanted) const;
    size_t count(const std::vector<int32_t>& wanted) const;

    struct Copied {
        size_t bytes = 0;
        size_t count = 0;
    };
    // Copies the frames of these types, in order, to where there is room for all.
    Copied copy(const std::vector<int32_t>& wanted, char* to);

  private:
    // Fits a write buffer with room to spare.
    static constexpr size_t FULL_BYTES = 24576;

    struct Entry {
        uint32_t end;        // of its frame
        uint32_t typeIndex;  // in stagedTypes
    };

    void reserve();
    uint32_t indexOf(int32_t type);

    std::vector<char> frames;
    std::vector<Entry> entries;
    std::vector<int32_t> stagedTypes;
    std::vector<char> wantedTypes;  // of `copy`, by type index; kept for its memory
};

}  // namespace Tesu::Bpf
