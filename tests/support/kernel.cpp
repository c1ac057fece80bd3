// SPDX-License-Identifier: Apache-2.0
#include "tests/support/kernel.h"

#include <android-base/properties.h>
#include <bcc/libbpf.h>
#include <bpf/bpf.h>
#include <link.h>

#include <algorithm>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "bpf/kernel_layout.h"
#include "loader/kernel_layout.h"
#include "loader/load_set.h"
#include "records/contract.h"
#include "service/lost_records.h"
#include "tests/bpf/inject.h"
#include "tests/support/wait_until.h"

namespace Tesu::Bpf {

using android::base::unique_fd;

static unique_fd OpenStatus(RingIndex ring) {
    return OpenPin(ring == RING_CORE ? CORE_STATUS_MAP : GPL_STATUS_MAP);
}

uint64_t Scaled(uint64_t count) {
    const char* const scale = std::getenv("TESUBPF_TEST_SCALE");
    return count / (scale != nullptr ? std::stoul(scale) : TESUBPF_TEST_SCALE);
}

unique_fd OpenPin(const std::string& name) {
    return unique_fd(bpf_obj_get((std::string(PIN_DIR) + "/" + name).c_str()));
}

uint64_t ReadRingStatus(RingIndex ring, uint32_t key) {
    uint64_t value = 0;
    bpf_map_lookup_elem(OpenStatus(ring).get(), &key, &value);
    return value;
}

bool IsEnabled(RingIndex ring) {
    constexpr uint64_t BOTH_CLASSES = FLAG_CORE_ENABLED | FLAG_NORMAL_ENABLED;
    return (ReadRingStatus(ring, RING_STATUS_FLAGS) & BOTH_CLASSES) == BOTH_CLASSES;
}

void SetRingFlags(RingIndex ring, uint64_t flags) {
    const uint32_t key = RING_STATUS_FLAGS;
    bpf_map_update_elem(OpenStatus(ring).get(), &key, &flags, BPF_ANY);
}

uint64_t LostRecords(RingIndex ring) {
    return ReadLostRecords(OpenStatus(ring).get());
}

unique_fd AttachToFunction(const std::string& program, const void* function) {
    const unique_fd fd = OpenPin("prog_" + program);
    const bool isReturn = program.find("_return_") != std::string::npos;
    // The function's place in the program's file: its address relative to where the file begins.
    Dl_info info = {};
    dladdr(function, &info);
    const auto offset = static_cast<uint64_t>(static_cast<const char*>(function) -
                                              static_cast<const char*>(info.dli_fbase));
    return unique_fd(bpf_attach_uprobe(fd.get(), isReturn ? BPF_PROBE_RETURN : BPF_PROBE_ENTRY,
                                       (program + "_test").c_str(), "/proc/self/exe", offset, -1,
                                       0));
}

RecordInjector::RecordInjector(RingIndex ring) : object(nullptr, &bpf_object__close) {
    object.reset(bpf_object__open_file(TESUBPF_INJECT_OBJECT, nullptr));
    const auto map = [this](const std::string& name) {
        return bpf_object__find_map_by_name(object.get(), name.c_str());
    };
    for (const std::string name : {"ringbuf_map", "ringbuf_current", "ringbuf_status"}) {
        const unique_fd pinned =
            OpenPin((ring == RING_CORE ? TESU_CORE_MAP("") : TESU_GPL_MAP("")) + name);
        EXPECT_EQ(bpf_map__reuse_fd(map(name), pinned.get()), 0) << name;
    }
    TesuKernelLayout layout = {};
    layout.hasAtomics = HasAtomics() ? 1 : 0;
    EXPECT_EQ(bpf_map__set_initial_value(map(TESU_LAYOUT_SECTION), &layout, sizeof(layout)), 0);
    EXPECT_EQ(bpf_object__load(object.get()), 0) << strerror(errno);
    programFd = bpf_program__fd(bpf_object__find_program_by_name(object.get(), "inject"));
    recordMapFd = bpf_object__find_map_fd_by_name(object.get(), "injected_record");
}

RecordInjector::Result RecordInjector::inject(const void* record, uint32_t size, uint64_t count) {
    std::vector<char> value(INJECT_MAX_BYTES);
    std::copy_n(static_cast<const char*>(record), size, value.data());
    const uint32_t key = 0;
    EXPECT_EQ(bpf_map_update_elem(recordMapFd, &key, value.data(), BPF_ANY), 0);
    Result result;
    uint64_t done = 0;
    do {
        InjectRequest request = {};
        request.size = size;
        request.count = static_cast<uint32_t>(std::min<uint64_t>(count - done, INJECT_BATCH));
        LIBBPF_OPTS(bpf_test_run_opts, options, .ctx_in = &request, .ctx_size_in = sizeof(request));
        EXPECT_EQ(bpf_prog_test_run_opts(programFd, &options), 0);
        EXPECT_EQ(options.retval, 0U);
        result.sent += request.count - request.refused;
        result.refused += request.refused;
        recordAddress = request.address;
        done += request.count;
    } while (done < count);
    return result;
}

void KernelServiceTest::load(std::optional<uint32_t> ringBytes) {
    LoadOptions options;
    options.ringBytes = ringBytes;
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
