// SPDX-License-Identifier: Apache-2.0
//
// The real programs in the running kernel, records of a test's own in their ring buffers, and the
// whole service in this process, in a sandbox of its own.
#pragma once

#include <android-base/unique_fd.h>
#include <bpf/libbpf.h>

#include <cstdint>
#include <initializer_list>
#include <memory>
#include <optional>

#include "records/raw_event.h"
#include "tests/support/served_test.h"

namespace Tesu::Bpf {

// How many of what a test makes by the thousand: a part of it under sanitizers, and in emulated
// machines, which say how small a part (TESUBPF_TEST_SCALE of the environment).
uint64_t Scaled(uint64_t count);

// The map or program of that pin name; invalid where there is none.
android::base::unique_fd OpenPin(const std::string& name);
uint64_t ReadRingStatus(RingIndex ring, uint32_t key);
// Whether every class of events is on.
bool IsEnabled(RingIndex ring);
void SetRingFlags(RingIndex ring, uint64_t flags);
uint64_t LostRecords(RingIndex ring);

// Runs the program of a kprobe ("TesuBpfDefineset_kprobe_enter_fd_install") on calls of (or returns
// from) a function of this program instead of the kernel's, in any process, until the result is
// closed. Invalid where the kernel cannot.
android::base::unique_fd AttachToFunction(const std::string& program, const void* function);

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
    int programFd = -1;  // these belong to the object
    int recordMapFd = -1;
    uint64_t recordAddress = 0;
};

class KernelServiceTest : public ServiceIn<KernelTest> {
  protected:
    // Loads and pins the programs anew, all of them.
    static void load(std::optional<uint32_t> ringBytes = {});
    // Loads, starts the service and waits until every class of events is on. `kernelVersion` "6.1"
    // has the GPL ring drained too.
    void startService(std::optional<uint32_t> ringBytes = {},
                      const std::string& kernelVersion = "6.18");
    // Connects the client, that is for event types.
    void subscribe(std::initializer_list<int32_t> types);
};

}  // namespace Tesu::Bpf
