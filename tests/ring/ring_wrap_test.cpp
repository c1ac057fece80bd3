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
#include <thread>
#include <vector>

namespace Tesu::Bpf {
namespace {

constexpr uint64_t RING_BYTES = 4096;
constexpr uint64_t WRAP = uint64_t{1} << 32;
constexpr uint32_t DISCARDED = BPF_RINGBUF_DISCARD_BIT;

template <class Word>
std::atomic_ref<Word> As(void* position) {
    return std::atomic_ref(*static_cast<Word*>(position));
}

// `Position` is the kernel's unsigned long. libbpf finds out whether the producer is ahead by
// comparing the positions' low words (1.1) or their difference (what came after it).
template <class Position, bool COMPARES_WORDS>
struct FakeRing {
    explicit FakeRing(uint64_t start) : consumer(start), producer(start) {
        if (sizeof(Position) == sizeof(uint32_t)) {
            producer |= uint64_t{0x5a5a5a5a} << 32;  // another field of the kernel's
        }
    }

    // As the kernel reserves; false when the ring is full. `bits` are BPF_RINGBUF_*_BIT.
    bool write(uint64_t sequence, uint32_t size, uint32_t bits = 0) {
        const Position start = As<Position>(&producer).load(std::memory_order_relaxed);
        const Position end = start + (size + BPF_RINGBUF_HDR_SZ + 7) / 8 * 8;
        if (static_cast<Position>(end - As<Position>(&consumer).load()) > RING_BYTES - 1) {
            return false;
        }
        lastHeader = &records[start & (RING_BYTES - 1)];
        As<uint32_t>(lastHeader) = size | bits;
        As<uint64_t>(lastHeader + BPF_RINGBUF_HDR_SZ).store(sequence, std::memory_order_relaxed);
        As<Position>(&producer) = end;
        return true;
    }

    // libbpf's loop in a 32-bit process.
    int readAsLibrary(ring_buffer_sample_fn onRecord, void* ctx) {
        uint32_t position = As<uint32_t>(&consumer);
        while (true) {
            const uint32_t written = As<uint32_t>(&producer);
            char* const header = &records[position & (RING_BYTES - 1)];
            const uint32_t size = As<uint32_t>(header);
            if ((COMPARES_WORDS ? position >= written : position == written) ||
                (size & BPF_RINGBUF_BUSY_BIT) != 0) {
                return 0;
            }
            const int result = onRecord(ctx, header + BPF_RINGBUF_HDR_SZ, size);
            position += (size + BPF_RINGBUF_HDR_SZ + 7) / 8 * 8;
            As<uint32_t>(&consumer) = position;
            if (result < 0) {
                errno = -result;
                return result;
            }
        }
    }

    // Bytes, as the kernel sees them.
    Position waiting() { return As<Position>(&producer) - As<Position>(&consumer); }
    // libbpf does not call anybody for discarded records, and the programs discard none; those that
    // RingWrap itself takes may be.
    bool mayDiscard() { return UINT32_MAX - As<uint32_t>(&producer) < RING_BYTES; }

    alignas(8) uint64_t consumer;
    alignas(8) uint64_t producer;
    char* lastHeader = nullptr;
    // Only a record that begins before the end runs past it, so the second half needs no copy.
    alignas(8) std::array<char, 2 * RING_BYTES> records{};
};

template <class Ring>
struct Reader {
    explicit Reader(Ring* ring)
        : ring(ring),
          wrap({&ring->consumer, reinterpret_cast<const uint32_t*>(&ring->producer),
                ring->records.data(), RING_BYTES},
               onRecord, this) {}

    int take() {
        errno = 0;
        const int result =
            wrap.take([this] { return ring->readAsLibrary(RingWrap::onLibraryRecord, &wrap); });
        EXPECT_TRUE(result >= 0 || result == -errno);
        return result;
    }
    static int onRecord(void* ctx, void* data, size_t /*size*/) {
        auto* const self = static_cast<Reader*>(ctx);
        self->arrived.push_back(As<uint64_t>(data).load(std::memory_order_relaxed));
        self->meanwhile();
        return self->answer;
    }

    Ring* ring;
    RingWrap wrap;
    std::vector<uint64_t> arrived;
    std::function<void()> meanwhile = [] {};  // while a record is handled
    int answer = 0;
};

// Records of all sizes, written between the readings and during them, some discarded, some still
// being written while others follow; in every fourth round one ends exactly at the wrap, in every
// fifth each is refused.
template <class Ring>
void CrossInPortions() {
    constexpr uint64_t COUNT = 1000;
    for (int round = 0; round < 200; ++round) {
        SCOPED_TRACE(round);
        std::mt19937 random(round);
        const bool isEven = round % 4 == 0;
        Ring ring(3 * WRAP - 4 * RING_BYTES - (isEven ? 0 : 8 * (round % 64)));
        Reader<Ring> reader(&ring);
        reader.answer = round % 5 == 4 ? -ECANCELED : 0;
        uint64_t written = 0;
        std::vector<uint64_t> expected;
        const auto write = [&](uint32_t bits = 0) {
            if (written == COUNT || !ring.write(written, isEven ? 24 : 8 + random() % 60, bits)) {
                return false;
            }
            if (bits != DISCARDED) {
                expected.push_back(written);
            }
            ++written;
            return true;
        };
        reader.meanwhile = [&] { random() % 16 != 0 && reader.answer == 0 && write(); };
        while (written < COUNT) {
            while (random() % 8 != 0 &&
                   write(ring.mayDiscard() && random() % 4 == 0 ? DISCARDED : 0)) {
            }
            const size_t before = expected.size();
            const bool isBusy = random() % 4 == 0 && write(BPF_RINGBUF_BUSY_BIT);
            char* const busy = ring.lastHeader;
            write();
            while (reader.take() < 0 && reader.arrived.size() < expected.size()) {
            }
            if (isBusy) {
                ASSERT_EQ(reader.arrived.size(), before);
                As<uint32_t>(busy) = As<uint32_t>(busy) & ~BPF_RINGBUF_BUSY_BIT;
                while (reader.take() < 0 && reader.arrived.size() < expected.size()) {
                }
            }
            ASSERT_EQ(ring.waiting(), 0U);
        }
        ASSERT_EQ(reader.arrived, expected);
    }
}

template <class Ring>
void CrossWithAWriterMeanwhile() {
    constexpr uint64_t COUNT = 5000;
    Ring ring(WRAP - 4 * RING_BYTES);
    Reader<Ring> reader(&ring);
    // Neither side waits for ever for the other.
    constexpr int MOST_TURNS = 10'000'000;
    std::atomic<int> turns{0};
    std::thread writer([&] {
        for (uint64_t i = 0; i < COUNT && turns < MOST_TURNS;) {
            i += ring.write(i, 40 + i % 7 * 8);
        }
    });
    while (reader.arrived.size() < COUNT && ++turns < MOST_TURNS && reader.take() >= 0) {
        std::this_thread::yield();
    }
    writer.join();
    ASSERT_EQ(reader.arrived.size(), COUNT);
    EXPECT_TRUE(std::is_sorted(reader.arrived.begin(), reader.arrived.end()));
}

template <class Ring>
class RingWrapTest : public testing::Test {};

using Rings = testing::Types<FakeRing<uint64_t, true>, FakeRing<uint32_t, true>,
                             FakeRing<uint64_t, false>, FakeRing<uint32_t, false>>;
TYPED_TEST_SUITE(RingWrapTest, Rings);

TYPED_TEST(RingWrapTest, EveryRecordArrivesOnceAndInOrder) {
    CrossInPortions<TypeParam>();
    CrossWithAWriterMeanwhile<TypeParam>();
}

}  // namespace
}  // namespace Tesu::Bpf
