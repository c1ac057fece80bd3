// SPDX-License-Identifier: Apache-2.0
//
// The events that a thread has appended and not yet handed out, as the frames that clients will
// get. Staging takes no lock. Belongs to its thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "ipc/ipc_package.h"

namespace Tesu::Bpf {

class StagedEvents {
  public:
    // The largest event that fits a connection's write buffer.
    static constexpr unsigned MAX_EVENT_SIZE = IPC_MAX_PACKAGE_SIZE - IPC_PACKAGE_HEADER_SIZE;

    // Copies an event of at most that size. Throws std::bad_alloc where there is no memory, also
    // for handing out what is there.
    void add(int32_t type, const char* event, unsigned size);
    // Enough for a send.
    bool isFull() const { return used >= FULL_BYTES; }
    bool isEmpty() const { return entries.empty(); }
    void clear();

    size_t bytes() const { return used; }
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
    // Fills a write buffer, and one frame of usual size more still fits it.
    static constexpr size_t FULL_BYTES = IPC_BUFFER_SIZE - 512;
    static constexpr size_t CAPACITY = FULL_BYTES + IPC_BUFFER_SIZE;  // bytes

    struct Entry {
        uint32_t end;        // of its frame
        uint32_t typeIndex;  // in stagedTypes
    };

    void reserve();
    uint32_t indexOf(int32_t type);

    std::unique_ptr<char[]> frames;  // made last of these
    size_t used = 0;                 // bytes of frames
    std::vector<Entry> entries;
    std::vector<int32_t> stagedTypes;
    std::vector<char> wantedTypes;  // of `copy`, by type index; kept for its memory
};

}  // namespace Tesu::Bpf
