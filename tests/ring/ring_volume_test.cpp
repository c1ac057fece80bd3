// SPDX-License-Identifier: Apache-2.0
//
// Five GiB through real ring buffers of the running kernel. Needs nothing but libbpf, so that it
// is built for machines where the rest of the project is not. The object with the program that
// writes is found where it was built, or where TESUBPF_INJECT_OBJECT of the environment says.
#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
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
// Neither side goes on after this long without the other.
constexpr std::chrono::seconds PATIENCE{5};

using Object = std::unique_ptr<bpf_object, decltype(&bpf_object__close)>;

// Checks in the order of arrival, and forgets. Written by the reading thread.
struct Arrivals {
    std::atomic<uint64_t> count{0};
    uint64_t misplaced = 0;
};

Arrivals* arrivals = nullptr;

int OnRecord(void* /*ctx*/, void* data, size_t size) {
    RawEventHeader header{};
    std::memcpy(&header, data, sizeof(header));
    const uint64_t expected = arrivals->count.load(std::memory_order_relaxed);
    if (size != RECORD_BYTES || static_cast<uint64_t>(header.time) != expected) {
        ++arrivals->misplaced;
    }
    arrivals->count.store(expected + 1, std::memory_order_release);
    return 0;
}

class RingVolumeTest : public KernelTest {
  protected:
    void SetUp() override {
        KernelTest::SetUp();
        if (IsSkipped()) {
            return;
        }
        const char* path = getenv("TESUBPF_INJECT_OBJECT");
        object.reset(bpf_object__open(path != nullptr ? path : TESUBPF_INJECT_OBJECT));
        ASSERT_NE(object, nullptr) << strerror(errno);
        bpf_map* const ring = bpf_object__find_map_by_name(object.get(), "ringbuf_map");
        ASSERT_EQ(bpf_map__set_max_entries(ring, RING_BYTES), 0);
        const int error = bpf_object__load(object.get());
        ASSERT_EQ(error, 0) << strerror(-error);
        ringFd = bpf_map__fd(ring);
        programFd = bpf_program__fd(bpf_object__find_program_by_name(object.get(), "inject"));
        arrivals = &arrived;
        positionBits = IsRingPosition32Bits().value() ? 32 : 64;
        std::cout << "positions of " << positionBits << " bits, read by a process of "
                  << 8 * sizeof(long) << " bits\n";
    }

    // All records, unless the reading stops or the kernel refuses some.
    void write() {
        auto lastProgress = std::chrono::steady_clock::now();
        uint64_t lastCount = 0;
        while (written < RECORD_COUNT) {
            const uint64_t count = arrived.count.load(std::memory_order_acquire);
            const auto now = std::chrono::steady_clock::now();
            if (count != lastCount) {
                lastCount = count;
                lastProgress = now;
            }
            // Room for another batch, so that nothing is refused, and for a record whose arrival
            // was counted but whose room was not given back yet.
            if ((written - count + INJECT_BATCH + 1) * BYTES_IN_RING >= RING_BYTES) {
                if (now - lastProgress > PATIENCE) {
                    break;
                }
                std::this_thread::yield();
                continue;
            }
            InjectRequest request = {.firstSequence = written,
                                     .isSequence = 1,
                                     .size = RECORD_BYTES,
                                     .count = static_cast<uint32_t>(
                                         std::min<uint64_t>(RECORD_COUNT - written, INJECT_BATCH)),
                                     .refused = 0};
            LIBBPF_OPTS(bpf_test_run_opts, options, .ctx_in = &request,
                        .ctx_size_in = sizeof(request));
            if (bpf_prog_test_run_opts(programFd, &options) != 0 || options.retval != 0) {
                ADD_FAILURE() << "cannot write: " << strerror(errno);
                break;
            }
            refused += request.refused;
            written += request.count - request.refused;
            if (refused != 0) {
                break;
            }
        }
    }

    // Reads, while a thread writes, until everything is there or nothing comes any more.
    void run(const std::function<int()>& epollFd, const std::function<int()>& read) {
        std::atomic<bool> isWritten = false;
        std::thread writer([&] {
            write();
            isWritten = true;
        });
        while (arrived.count.load(std::memory_order_relaxed) < RECORD_COUNT && !isWritten) {
            pollfd readable = {.fd = epollFd(), .events = POLLIN, .revents = 0};
            poll(&readable, 1, 100);
            if (readable.revents != 0 && read() < 0) {
                ADD_FAILURE() << "cannot read: " << strerror(errno);
                break;
            }
        }
        writer.join();
        read();
        EXPECT_EQ(arrived.misplaced, 0U);
    }

    Object object{nullptr, &bpf_object__close};
    int ringFd = -1;  // these belong to the object
    int programFd = -1;
    int positionBits = 0;
    Arrivals arrived;
    uint64_t written = 0;
    uint64_t refused = 0;
};

TEST_F(RingVolumeTest, FiveGibibytesArrive) {
    const auto reader = RingReader::Open(ringFd, OnRecord);
    ASSERT_NE(reader, nullptr) << strerror(errno);
    run([&] { return reader->epollFd(); }, [&] { return reader->poll(); });
    EXPECT_EQ(arrived.count, written);
    // Since 6.10, and later long-term 6.1, a kernel follows the oldest unfinished record with a
    // position of its own and compares it with `<`. A 32-bit one leaves it at the last record that
    // began before 4 GiB, and takes nothing that ends more than the ring's size after that, though
    // the ring be empty.
    const uint64_t kernelsEnd = WRAP / BYTES_IN_RING + (RING_BYTES - 1) / BYTES_IN_RING;
    if (positionBits == 32 && refused != 0) {
        std::cout << "this kernel itself stops writing after record " << written << "\n";
        EXPECT_EQ(written, kernelsEnd);
        return;
    }
    EXPECT_EQ(written, RECORD_COUNT);
}

// The way of the service where the kernel stops by itself, here on every kernel: the ring is
// replaced again and again while the writer goes on.
TEST_F(RingVolumeTest, FiveGibibytesArriveThroughReplacedRings) {
    constexpr uint64_t REPLACE_AT = uint64_t{1} << 28;
    const std::string ringPath = "/sys/fs/bpf/ring";
    const std::string currentPath = "/sys/fs/bpf/current";
    ASSERT_EQ(bpf_obj_pin(ringFd, ringPath.c_str()), 0) << strerror(errno);
    EXPECT_EQ(bpf_obj_pin(bpf_object__find_map_fd_by_name(object.get(), "ringbuf_current"),
                          currentPath.c_str()),
              0)
        << strerror(errno);
    auto reader = RingReader::Open(ringFd, OnRecord);
    ASSERT_NE(reader, nullptr) << strerror(errno);
    RingReplacement replacement(ringPath, currentPath, REPLACE_AT);
    uint64_t replaced = 0;
    run([&] { return reader->epollFd(); },
        [&] {
            const int result = reader->poll();
            if (result >= 0 && replacement.isDue(*reader)) {
                EXPECT_TRUE(replacement.replace(&reader, OnRecord)) << strerror(errno);
                ++replaced;
            }
            return result;
        });
    EXPECT_EQ(arrived.count, RECORD_COUNT);
    // A ring is read a little beyond the mark before it is replaced.
    EXPECT_GE(replaced, RECORD_COUNT * BYTES_IN_RING / (REPLACE_AT + uint64_t{4} * RING_BYTES));
}

// What RingReader is there for. Where this fails libbpf has changed.
TEST_F(RingVolumeTest, TheLibraryAloneStopsAtFourGibibytesInA32BitProcess) {
    if (sizeof(long) != sizeof(uint32_t)) {
        GTEST_SKIP() << "a process of 64 bits";
    }
    const std::unique_ptr<ring_buffer, decltype(&ring_buffer__free)> reader(
        ring_buffer__new(ringFd, OnRecord, nullptr, nullptr), &ring_buffer__free);
    ASSERT_NE(reader, nullptr) << strerror(errno);
    run([&] { return ring_buffer__epoll_fd(reader.get()); },
        [&] { return ring_buffer__poll(reader.get(), 0); });
    EXPECT_LE(arrived.count * BYTES_IN_RING, WRAP);
    EXPECT_GE(arrived.count * BYTES_IN_RING, WRAP - RING_BYTES);
}

}  // namespace
}  // namespace Tesu::Bpf
