// SPDX-License-Identifier: Apache-2.0
//
// Five GiB through real ring buffers of the running kernel. Needs nothing but libbpf, so that it
// is built for machines where the rest of the project is not.
#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <gtest/gtest.h>
#include <poll.h>

#include <atomic>
#include <cstdint>
#include <iostream>
#include <memory>
#include <thread>

#include "loader/atomic_or.h"
#include "records/raw_event.h"
#include "service/ring_reader.h"
#include "service/ring_replacement.h"
#include "tests/support/run_injection.h"
#include "tests/support/sandbox.h"

namespace Tesu::Bpf {
namespace {

constexpr uint32_t RING_BYTES = 4U << 20;
constexpr uint32_t RECORD_BYTES = 4072;
constexpr uint32_t BYTES_IN_RING = RECORD_BYTES + 8;  // no divisor of 4 GiB: one lies across
constexpr uint64_t RECORD_COUNT = 5 * (uint64_t{1} << 30) / BYTES_IN_RING;

std::atomic<uint64_t> arrived{0};
int64_t lastNumber = -1;

int OnRecord(void* /*ctx*/, void* data, size_t size) {
    const int64_t number = static_cast<const RawEventHeader*>(data)->time;
    EXPECT_EQ(size, RECORD_BYTES);
    EXPECT_GT(number, lastNumber);
    lastNumber = number;
    ++arrived;
    return 0;
}

class RingVolumeTest : public KernelTest, public testing::WithParamInterface<uint64_t> {};

// By the parameter: as one ring, and in the way of the service where the kernel itself stops at
// 4 GiB, here on every kernel: the ring is replaced again and again while the writer goes on.
TEST_P(RingVolumeTest, FiveGibibytesArrive) {
    const std::unique_ptr<bpf_object, decltype(&bpf_object__close)> object(
        bpf_object__open(TESUBPF_INJECT_OBJECT), &bpf_object__close);
    bpf_map* const ring = bpf_object__find_map_by_name(object.get(), "ringbuf_map");
    ASSERT_EQ(bpf_map__set_max_entries(ring, RING_BYTES), 0);
    RemoveAtomicOrs(object.get());
    ASSERT_EQ(bpf_object__load(object.get()), 0);
    ASSERT_EQ(bpf_object__pin_maps(object.get(), "/sys/fs/bpf"), 0);
    auto reader = RingReader::Open(bpf_map__fd(ring), OnRecord);
    ASSERT_NE(reader, nullptr);

    uint64_t sent = 0;
    std::atomic<bool> isOver{false};
    std::thread writer([&] {
        while (sent < RECORD_COUNT && !isOver) {
            InjectRequest request = {RECORD_BYTES, INJECT_BATCH, 0, 0, 0};
            EXPECT_TRUE(RunInjection(object.get(), &request));
            sent += request.count - request.refused;
        }
        isOver = true;
    });
    RingReplacement replacement("/sys/fs/bpf/ringbuf_map", "/sys/fs/bpf/ringbuf_current",
                                GetParam());
    for (int idle = 0; !isOver && idle < 200;) {
        pollfd readable = {.fd = reader->epollFd(), .events = POLLIN, .revents = 0};
        idle = poll(&readable, 1, 100) > 0 ? 0 : idle + 1;
        EXPECT_GE(reader->consume(), 0);
        if (replacement.isDue(*reader)) {
            EXPECT_TRUE(replacement.replace(&reader, OnRecord));
        }
    }
    isOver = true;
    writer.join();
    EXPECT_GE(reader->consume(), 0);
    EXPECT_EQ(arrived, sent);
    std::cout << "NOTE " << (sent * BYTES_IN_RING >> 20) << " MiB, "
              << (replacement.isEver() ? "in many rings" : "in one ring") << "\n";
    // A 32-bit kernel may take nothing more once 4 GiB are in one ring (see ring_replacement.h).
    const bool mayStop = !replacement.isEver() && IsRingPosition32Bits().value();
    EXPECT_GE(sent, mayStop ? (uint64_t{1} << 32) / BYTES_IN_RING : RECORD_COUNT);
    // A ring is read a little beyond the mark before it is replaced.
    EXPECT_LT(reader->position(), replacement.isEver() ? 2 * GetParam() : GetParam());
}

INSTANTIATE_TEST_SUITE_P(ReplacedAt, RingVolumeTest,
                         testing::Values(RingReplacement::NEVER, uint64_t{1} << 28));

}  // namespace
}  // namespace Tesu::Bpf
