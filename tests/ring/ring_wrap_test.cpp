// SPDX-License-Identifier: Apache-2.0
//
// The way over a multiple of 4 GiB, on a ring in this process's memory: with a kernel's side of
// either width, and a libbpf as it is in a 32-bit process. On every build; the real ring is in
// ring_volume_test.cpp.
#include "service/ring_wrap.h"

#include <gtest/gtest.h>
#include <linux/bpf.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <functional>
#include <random>

namespace Tesu::Bpf {
namespace {

constexpr uint64_t FAKE_RING_BYTES = 4096;

template <class Word>
std::atomic_ref<Word> AtomicAt(void* position) {
    return std::atomic_ref(*static_cast<Word*>(position));
}

// `Position` is the kernel's unsigned long. libbpf finds out whether the producer is ahead by
// comparing the positions' low words (1.1) or their difference (what came after it).
template <class Position, bool COMPARES_WORDS>
struct FakeRing {
    // As the kernel reserves. The record's header; null when the ring is full.
    char* write(uint64_t sequence, uint32_t size, uint32_t busyBit) {
        const Position start = AtomicAt<Position>(&producer);
        const Position end = start + (size + BPF_RINGBUF_HDR_SZ + 7) / 8 * 8;
        if (static_cast<Position>(end - AtomicAt<Position>(&consumer)) > FAKE_RING_BYTES - 1) {
            return nullptr;
        }
        char* const header = &records[start & (FAKE_RING_BYTES - 1)];
        AtomicAt<uint32_t>(header) = size | busyBit;
        AtomicAt<uint64_t>(header + BPF_RINGBUF_HDR_SZ) = sequence;
        AtomicAt<Position>(&producer) = end;
        return header;
    }

    // libbpf's loop in a 32-bit process.
    int readAsLibrary(ring_buffer_sample_fn onRecord, void* ctx) {
        for (uint32_t position = AtomicAt<uint32_t>(&consumer);;) {
            const uint32_t written = AtomicAt<uint32_t>(&producer);
            char* const header = &records[position & (FAKE_RING_BYTES - 1)];
            const uint32_t size = AtomicAt<uint32_t>(header);
            if ((COMPARES_WORDS ? position >= written : position == written) ||
                (size & BPF_RINGBUF_BUSY_BIT) != 0) {
                return 0;
            }
            const int result = onRecord(ctx, header + BPF_RINGBUF_HDR_SZ, size);
            position += (size + BPF_RINGBUF_HDR_SZ + 7) / 8 * 8;
            AtomicAt<uint32_t>(&consumer) = position;
            if (result < 0) {
                errno = -result;
                return result;
            }
        }
    }

    alignas(8) uint64_t consumer;
    alignas(8) uint64_t producer;
    // Only a record that begins before the end runs past it, so the second half needs no copy.
    alignas(8) std::array<char, 2 * FAKE_RING_BYTES> records{};
};

template <class Ring>
class RingWrapTest : public testing::Test {};

using Rings = testing::Types<FakeRing<uint64_t, true>, FakeRing<uint32_t, true>,
                             FakeRing<uint64_t, false>, FakeRing<uint32_t, false>>;
TYPED_TEST_SUITE(RingWrapTest, Rings);

// Records of all sizes, written between the readings and during them, some still being written
// while others follow; in every fourth round one ends exactly at the wrap, in every fifth each is
// refused.
TYPED_TEST(RingWrapTest, EveryRecordArrivesOnceAndInOrder) {
    constexpr uint64_t COUNT = 1000;
    for (int round = 0; round < 200 && !this->HasFailure(); ++round) {
        std::mt19937 random(round);
        const bool isEven = round % 4 == 0;
        const int answer = round % 5 == 4 ? -ECANCELED : 0;
        const uint64_t start =
            (uint64_t{3} << 32) - 4 * FAKE_RING_BYTES - (isEven ? 0 : 8 * (round % 64));
        TypeParam ring{start, start};
        uint64_t written = 0;
        uint64_t arrived = 0;
        const auto write = [&](uint32_t busyBit = 0) {
            const uint32_t size = isEven ? 24 : 8 + random() % 60;
            char* const header = written < COUNT ? ring.write(written, size, busyBit) : nullptr;
            written += header != nullptr;
            return header;
        };
        std::function<int(void*)> onRecord = [&](void* data) {
            EXPECT_EQ(AtomicAt<uint64_t>(data), arrived++);
            if (answer == 0 && random() % 16 != 0) {
                write();
            }
            return answer;
        };
        RingWrap wrap(
            {&ring.consumer, reinterpret_cast<const uint32_t*>(&ring.producer), ring.records.data(),
             FAKE_RING_BYTES},
            [](void* ctx, void* data, size_t /*size*/) {
                return (*static_cast<decltype(onRecord)*>(ctx))(data);
            },
            &onRecord);
        const auto library = [&] { return ring.readAsLibrary(wrap.onLibraryRecord, &wrap); };
        while (arrived < COUNT) {
            while (random() % 8 != 0 && write() != nullptr) {
            }
            const uint64_t whole = written;
            char* const busy = random() % 4 == 0 ? write(BPF_RINGBUF_BUSY_BIT) : nullptr;
            write();
            for (int result = -1; result < 0;) {
                errno = 0;
                result = wrap.take(library);
                EXPECT_TRUE(result >= 0 || result == -errno);
            }
            ASSERT_EQ(arrived, busy != nullptr ? whole : written);
            if (busy != nullptr) {
                AtomicAt<uint32_t>(busy) = AtomicAt<uint32_t>(busy) & ~BPF_RINGBUF_BUSY_BIT;
            }
        }
    }
}

}  // namespace
}  // namespace Tesu::Bpf
