// SPDX-License-Identifier: Apache-2.0
#include "tests/support/kernel.h"

#include <android-base/properties.h>

#include <cstdlib>
#include <sstream>
#include <string>

#include "loader/load_set.h"
#include "records/contract.h"
#include "tests/support/wait_until.h"

namespace Tesu::Bpf {

uint64_t Scaled(uint64_t count) {
    const char* const scale = std::getenv("TESUBPF_TEST_SCALE");
    return count / (scale != nullptr ? std::stoul(scale) : TESUBPF_TEST_SCALE);
}

void KernelServiceTest::load(std::optional<uint32_t> ringBytes, std::optional<uint32_t> rssStep) {
    LoadOptions options;
    options.ringBytes = ringBytes;
    options.rssStep = rssStep;
    std::ostringstream out;
    std::ostringstream err;
    ASSERT_EQ(UnloadSet(options.pinDir, out, err), LOADER_DONE);
    ASSERT_EQ(LoadSet(options, out, err), LOADER_DONE) << err.str();
    ASSERT_EQ(err.str(), "");
}

void KernelServiceTest::startService(std::optional<uint32_t> ringBytes,
                                     const std::string& kernelVersion) {
    if (!OpenPin(CORE_STATUS_MAP).ok()) {
        ASSERT_NO_FATAL_FAILURE(load(ringBytes));
    }
    android::base::SetProperty(KERNEL_VERSION_PROPERTY, kernelVersion);
    start("1");
    ASSERT_TRUE(WaitUntil(
        [&] { return IsEnabled(RING_CORE) && (kernelVersion != "6.1" || IsEnabled(RING_GPL)); }));
}

void KernelServiceTest::subscribe(std::initializer_list<int32_t> types) {
    ASSERT_TRUE(client.connectTo(SERVICE_SOCKET_NAME));
    for (const int32_t type : types) {
        ASSERT_EQ(client.subscribe(type), 0) << type;
    }
}

}  // namespace Tesu::Bpf
