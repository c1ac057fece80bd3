// SPDX-License-Identifier: Apache-2.0
#include "tests/support/running_service.h"

#include <android-base/properties.h>

#include <sstream>

#include "records/raw_event.h"
#include "tests/support/wait_until.h"

namespace Tesu::Bpf {

RunningServiceTest::~RunningServiceTest() {
    stopService();
}

void RunningServiceTest::startService(std::optional<uint32_t> ringBytes,
                                      const std::string& kernelVersion) {
    LoadOptions options = BuiltObjects();
    options.ringBytes = ringBytes;
    std::ostringstream messages;
    ASSERT_EQ(LoadSet(options, messages, messages), LOADER_DONE) << messages.str();

    android::base::SetProperty("sys.tesu_bpf_ready", "1");
    android::base::SetProperty("ro.kernel.version", kernelVersion);
    ASSERT_TRUE(BpfServiceMain());
    service = TesuBpfService::GetInstance();
    supervisor = std::thread([this] { service->Wait(); });
    const auto isEnabled = [](PinnedRing ring) {
        constexpr uint64_t ENABLED = FLAG_CORE_ENABLED | FLAG_NORMAL_ENABLED;
        return (ReadRingStatus(ring, RING_STATUS_FLAGS) & ENABLED) == ENABLED;
    };
    ASSERT_TRUE(WaitUntil([&] {
        return isEnabled(PinnedRing::CORE) &&
               (kernelVersion != "6.1" || isEnabled(PinnedRing::GPL));
    }));
}

void RunningServiceTest::stopService() {
    if (supervisor.joinable()) {
        service->stop();
        supervisor.join();
    }
}

std::unique_ptr<RecordInjector> RunningServiceTest::openInjector(PinnedRing ring) {
    std::string error;
    auto injector = RecordInjector::Open(ring, &error);
    EXPECT_NE(injector, nullptr) << error;
    return injector;
}

}  // namespace Tesu::Bpf
