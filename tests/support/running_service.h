// SPDX-License-Identifier: Apache-2.0
//
// A test with the whole service in this process: programs loaded by the loader, attached to the
// running kernel, in a sandbox of its own.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <thread>

#include "service/tesu_bpf_service.h"
#include "tests/support/pins.h"
#include "tests/support/record_injector.h"
#include "tests/support/sandbox.h"

namespace Tesu::Bpf {

class RunningServiceTest : public KernelTest {
  protected:
    static constexpr const char* SOCKET = "/mnt/bpfframework/tesubpfdispatcher";

    ~RunningServiceTest() override;

    // Loads, starts the service and waits until every class of events is on. `kernelVersion` "6.1"
    // has the GPL buffer drained too.
    void startService(std::optional<uint32_t> ringBytes = {},
                      const std::string& kernelVersion = "6.18");
    // Ends the service and waits for its threads; done by the destructor at the latest.
    void stopService();

    static std::unique_ptr<RecordInjector> openInjector(PinnedRing ring);

    TesuBpfService* service = nullptr;

  private:
    std::thread supervisor;
};

}  // namespace Tesu::Bpf
