// SPDX-License-Identifier: Apache-2.0
#include "tests/support/kernel.h"

#include <android-base/properties.h>
#include <bcc/libbpf.h>
#include <link.h>

#include <cstdlib>
#include <sstream>
#include <string>

#include "loader/load_set.h"
#include "records/contract.h"
#include "tests/support/wait_until.h"

namespace Tesu::Bpf {

using android::base::unique_fd;

uint64_t Scaled(uint64_t count) {
    const char* const scale = std::getenv("TESUBPF_TEST_SCALE");
    return count / (scale != nullptr ? std::stoul(scale) : TESUBPF_TEST_SCALE);
}

unique_fd AttachToFunction(const std::string& program, const void* function) {
    const unique_fd fd = OpenPin("prog_" + program);
    // The function's place in the program's file: its address relative to where the file begins.
    Dl_info info = {};
    dladdr(function, &info);
    const auto offset = static_cast<uint64_t>(static_cast<const char*>(function) -
                                              static_cast<const char*>(info.dli_fbase));
    return unique_fd(bpf_attach_uprobe(fd.get(), BPF_PROBE_ENTRY, (program + "_test").c_str(),
                                       "/proc/self/exe", offset, -1, 0));
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
