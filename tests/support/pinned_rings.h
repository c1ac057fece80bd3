// SPDX-License-Identifier: Apache-2.0
//
// The pinned maps of the loaded programs, and records of the caller's own in their ring buffers.
// What fails is a failure of GoogleTest's, also outside a test.
#pragma once

#include <android-base/unique_fd.h>
#include <bpf/libbpf.h>

#include <cstdint>
#include <memory>
#include <string>

#include "records/bpf_maps.h"
#include "service/tesu_bpf_service.h"

namespace Tesu::Bpf {

// The map or program of that pin name; invalid where there is none.
android::base::unique_fd OpenPin(const std::string& name);
uint64_t ReadRingStatus(RingIndex ring, uint32_t key);
// Whether every class of events is on.
bool IsEnabled(RingIndex ring);
void SetRingFlags(RingIndex ring, uint64_t flags);
uint64_t LostRecords(RingIndex ring);

// Puts records into a ring as the programs would, with the same account when it is full: what was
// produced is what was received plus what the status map counts as lost. An injector belongs to one
// thread at a time; several may work on one ring.
class RecordInjector {
  public:
    struct Result {
        uint64_t sent = 0;     // are in the ring
        uint64_t refused = 0;  // found it full, and are counted as lost
    };

    // The programs must be loaded.
    explicit RecordInjector(RingIndex ring);

    // `count` copies of the record, of 16 to INJECT_MAX_BYTES, their times rising by 1. None: only
    // the address changes.
    Result inject(const void* record, uint32_t size, uint64_t count = 1);
    // The last record's address in kernel memory, where it stays until the next call.
    uint64_t address() const { return recordAddress; }

  private:
    std::unique_ptr<bpf_object, decltype(&bpf_object__close)> object;
    int recordMapFd = -1;  // belongs to the object
    uint64_t recordAddress = 0;
};

}  // namespace Tesu::Bpf
