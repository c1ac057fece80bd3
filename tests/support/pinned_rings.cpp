// SPDX-License-Identifier: Apache-2.0
#include "tests/support/pinned_rings.h"

#include <bpf/bpf.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "bpf/kernel_layout.h"
#include "loader/atomic_or.h"
#include "loader/kernel_layout.h"
#include "records/contract.h"
#include "service/lost_records.h"
#include "tests/bpf/inject.h"
#include "tests/support/run_injection.h"

namespace Tesu::Bpf {

using android::base::unique_fd;

static unique_fd OpenStatus(RingIndex ring) {
    return OpenPin(ring == RING_CORE ? CORE_STATUS_MAP : GPL_STATUS_MAP);
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
    layout.hasAtomicAdd = HasAtomic(BPF_ADD) ? 1 : 0;
    layout.hasAtomicOr = HasAtomic(BPF_OR) ? 1 : 0;
    if (layout.hasAtomicOr == 0) {
        RemoveAtomicOrs(object.get());
    }
    EXPECT_EQ(bpf_map__set_initial_value(map(TESU_LAYOUT_SECTION), &layout, sizeof(layout)), 0);
    EXPECT_EQ(bpf_object__load(object.get()), 0) << strerror(errno);
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
        EXPECT_TRUE(RunInjection(object.get(), &request));
        result.sent += request.count - request.refused;
        result.refused += request.refused;
        recordAddress = request.address;
        done += request.count;
    } while (done < count);
    return result;
}

}  // namespace Tesu::Bpf
