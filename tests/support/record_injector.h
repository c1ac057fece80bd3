// SPDX-License-Identifier: Apache-2.0
//
// Puts exact records into a pinned ring buffer, as the kernel's programs would: into the real
// buffer, and with the same account when it is full. What was produced is what was received plus
// what the status map counts as lost.
//
// An injector belongs to one thread at a time; several may work on one ring buffer.
#pragma once

#include <android-base/unique_fd.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "loader/load_object.h"
#include "tests/support/pins.h"

namespace Tesu::Bpf {

class RecordInjector {
  public:
    struct Result {
        uint64_t sent = 0;     // are in the buffer
        uint64_t refused = 0;  // found it full, and are counted as lost
    };

    // Null, with a reason, on failure.
    static std::unique_ptr<RecordInjector> Open(PinnedRing ring, std::string* error);

    // One record of `size` bytes, 16 to INJECT_MAX_BYTES, any number of them. Returns how many
    // records got into the buffer: 1, or 0 when it was full.
    uint64_t inject(const void* record, uint32_t size);

    // `count` copies, the time in their headers running from `firstSequence`.
    Result injectSequence(const void* record, uint32_t size, uint64_t firstSequence,
                          uint64_t count);

    // Memory of the kernel that holds a copy of what is given here, at most INJECT_MAX_BYTES, until
    // the next call of the injector; its address there. 0 on failure.
    uint64_t fillKernelMemory(const void* data, size_t size);

  private:
    explicit RecordInjector(BpfObject loaded);
    bool setRecord(const void* record, size_t size);

    BpfObject object;
    int injectFd;  // these belong to the object
    int addressFd;
    int recordMapFd;
};

}  // namespace Tesu::Bpf
