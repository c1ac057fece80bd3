// SPDX-License-Identifier: Apache-2.0
//
// The real programs in the running kernel and the whole service in this process, in a sandbox of
// its own.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>

#include "tests/support/pinned_rings.h"
#include "tests/support/served_test.h"

namespace Tesu::Bpf {

// How many of what a test makes by the thousand: a part of it under sanitizers, and in emulated
// machines, which say how small a part (TESUBPF_TEST_SCALE of the environment).
uint64_t Scaled(uint64_t count);

// A ring for more than a test writes, on a machine that is busy with something else besides. A
// 32-bit kernel has little room for rings, of which some that were used before are still to be
// freed.
inline constexpr uint32_t LARGE_RING_BYTES = (sizeof(void*) == 4 ? 4 : 32) << 20;

class KernelServiceTest : public ServiceIn<KernelTest> {
  protected:
    // Loads and pins the programs anew, all of them.
    static void load(std::optional<uint32_t> ringBytes = {}, std::optional<uint32_t> rssStep = {});
    // Loads, starts the service and waits until every class of events is on. `kernelVersion` "6.1"
    // has the GPL ring drained too.
    void startService(std::optional<uint32_t> ringBytes = {},
                      const std::string& kernelVersion = "6.18");
    // Connects the client, that is for event types.
    void subscribe(std::initializer_list<int32_t> types);
};

}  // namespace Tesu::Bpf
