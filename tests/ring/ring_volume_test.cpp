// SPDX-License-Identifier: Apache-2.0
//
// Five GiB through real ring buffers of the running kernel. Needs nothing but libbpf, so that it
// is built for machines where the rest of the project is not. The object with the program that
// writes is found where it was built, or where TESUBPF_INJECT_OBJECT of the environment says.
#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <gtest/gtest.h>
#include <poll.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <memory>
#include <string>
#include <thread>

#include "records/raw_event.h"
#include "service/ring_reader.h"
#include "service/ring_replacement.h"
#include "tests/bpf/inject.h"
#include "tests/support/sandbox.h"

namespace Tesu::Bpf {
namespace {

constexpr uint32_t RING_BYTES = 4U << 20;
constexpr uint32_t RECORD_BYTES = 4072;
constexpr uint32_t BYTES_IN_RING = RECORD_BYTES + 8;  // no divisor of 4 GiB: one lies across
constexpr uint64_t WRAP = uint64_t{1} << 32;
constexpr uint64_t RECORD_COUNT = 5 * (uint64_t{1} << 30) / BYTES_IN_RING;

std::atomic<uint64_t> arrived{0};
int64_t lastNumber = -1;

int OnRecord(void* /*ctx*/, void* data, size_t size) {
    RawEventHeader header{};
    std::memcpy(&header, data, sizeof(header));
    EXPECT_EQ(size, RECORD_BYTES);
    EXPECT_GT(header.time, lastNumber);
    lastNumber = header.time;
    ++arrived;
    return 0;
}

class RingVolumeTest : public KernelTest, public testing::WithParamInterface<uint64_t> {};

// By the parameter: as one ring, and in the way of the service where the kernel itself stops at
// 4 GiB, here on every kernel: the ring is replaced again and again while the writer goes on.
TEST_P(RingVolumeTest, FiveGibibytesArrive) {
    const std::string ringPath = "/sys/fs/bpf/ring";
    const std::string currentPath = "/sys/fs/bpf/current";
    const char* const path = getenv("TESUBPF_INJECT_OBJECT");
    const std::unique_ptr<bpf_object, decltype(&bpf_object__close)> object(
        bpf_object__open(path != nullptr ? path : TESUBPF_INJECT_OBJECT), &bpf_object__close);
    ASSERT_NE(object, nullptr) << strerror(errno);
    bpf_map* const ring = bpf_object__find_map_by_name(object.get(), "ringbuf_map");
    ASSERT_EQ(bpf_map__set_max_entries(ring, RING_BYTES), 0);
    ASSERT_EQ(bpf_object__load(object.get()), 0) << strerror(errno);
    bpf_map* const current = bpf_object__find_map_by_name(object.get(), "ringbuf_current");
    ASSERT_EQ(bpf_map__pin(ring, ringPath.c_str()), 0);
    ASSERT_EQ(bpf_map__pin(current, currentPath.c_str()), 0);
    auto reader = RingReader::Open(bpf_map__fd(ring), OnRecord);
    ASSERT_NE(reader, nullptr) << strerror(errno);

    std::atomic<uint64_t> sent{0};
    std::atomic<bool> isOver{false};
    std::thread writer([&] {
        const int program =
            bpf_program__fd(bpf_object__find_program_by_name(object.get(), "inject"));
        bool isStuck = false;  // the kernel takes nothing into an empty ring
        while (sent < RECORD_COUNT && !isStuck && !isOver) {
            const bool isEmpty = arrived == sent;
            InjectRequest request = {};
            request.size = RECORD_BYTES;
            request.count = INJECT_BATCH;
            LIBBPF_OPTS(bpf_test_run_opts, options, .ctx_in = &request,
                        .ctx_size_in = sizeof(request));
            EXPECT_EQ(bpf_prog_test_run_opts(program, &options), 0);
            sent += request.count - request.refused;
            isStuck = isEmpty && request.refused == request.count;
        }
        isOver = true;
    });
    RingReplacement replacement(ringPath, currentPath, GetParam());
    uint64_t replaced = 0;
    for (int idle = 0; !isOver && idle < 200;) {
        pollfd readable = {.fd = reader->epollFd(), .events = POLLIN, .revents = 0};
        idle = poll(&readable, 1, 100) > 0 ? 0 : idle + 1;
        EXPECT_GE(reader->poll(), 0) << strerror(errno);
        if (replacement.isDue(*reader)) {
            EXPECT_TRUE(replacement.replace(&reader, OnRecord)) << strerror(errno);
            ++replaced;
        }
    }
    isOver = true;
    writer.join();
    EXPECT_GE(reader->poll(), 0);
    EXPECT_EQ(arrived, sent);
    // Since 6.10, and later long-term 6.1, a kernel follows the oldest unfinished record with a
    // position of its own and compares it with `<`. A 32-bit one leaves it at the last record that
    // began before 4 GiB, and takes nothing that ends more than the ring's size after that, though
    // the ring be empty.
    if (GetParam() == RingReplacement::NEVER && IsRingPosition32Bits().value() &&
        sent < RECORD_COUNT) {
        EXPECT_EQ(sent, WRAP / BYTES_IN_RING + (RING_BYTES - 1) / BYTES_IN_RING);
        return;
    }
    EXPECT_GE(sent, RECORD_COUNT);
    // A ring is read a little beyond the mark before it is replaced.
    if (replacement.isEver()) {
        EXPECT_GE(replaced, sent * BYTES_IN_RING / (GetParam() + uint64_t{4} * RING_BYTES));
    }
}

INSTANTIATE_TEST_SUITE_P(ReplacedAt, RingVolumeTest,
                         testing::Values(RingReplacement::NEVER, uint64_t{1} << 28));

}  // namespace
}  // namespace Tesu::Bpf
