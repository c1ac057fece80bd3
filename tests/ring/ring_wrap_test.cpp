// SPDX-License-Identifier: Apache-2.0
//
// The way over a multiple of 4 GiB, on a ring in this process's memory: with a kernel's side of
// either width, and a libbpf as it is in a 32-bit process. On every build; the real ring is in
// ring_volume_test.cpp.
#include "service/ring_wrap.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/bpf.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace Tesu::Bpf {
namespace {

constexpr uint64_t RING_BYTES = 4096;
constexpr uint64_t WRAP = uint64_t{1} << 32;

// How libbpf finds out whether the producer is ahead. 1.1 compares the positions' low words, what
// came after it their difference.
enum class Library { COMPARES_WORDS, COMPARES_DIFFERENCE };

// `Position` is the kernel's unsigned long.
template <class Position>
class FakeRing {
  public:
    explicit FakeRing(uint64_t start) : consumer(start), producer(start) {
        if (sizeof(Position) == sizeof(uint32_t)) {
            producer |= uint64_t{0x5a5a5a5a} << 32;  // another field of the kernel's
        }
    }

    RingWrap::Ring view() {
        return {.consumer = &consumer,
                .producer = reinterpret_cast<const uint32_t*>(&producer),
                .records = records.data(),
                .size = RING_BYTES};
    }

    // As the kernel reserves; false when the ring is full. `bits` are BPF_RINGBUF_*_BIT.
    bool write(uint64_t sequence, uint32_t size, uint32_t bits = 0) {
        const Position start = kernelPosition(producer).load(std::memory_order_relaxed);
        const Position end = start + (size + BPF_RINGBUF_HDR_SZ + 7) / 8 * 8;
        const Position read = kernelPosition(consumer).load(std::memory_order_acquire);
        if (static_cast<Position>(end - read) > RING_BYTES - 1) {
            return false;
        }
        lastHeader = reinterpret_cast<uint32_t*>(&records[start & (RING_BYTES - 1)]);
        *lastHeader = size | bits;
        std::memcpy(reinterpret_cast<char*>(lastHeader) + BPF_RINGBUF_HDR_SZ, &sequence,
                    sizeof(sequence));
        kernelPosition(producer).store(end, std::memory_order_release);
        return true;
    }
    void commitLast(uint32_t size) {
        std::atomic_ref(*lastHeader).store(size, std::memory_order_release);
    }

    // libbpf's loop in a 32-bit process.
    int readAsLibrary(Library library, ring_buffer_sample_fn onRecord, void* ctx) {
        const auto words = [](uint64_t& position) {
            return std::atomic_ref(*reinterpret_cast<uint32_t*>(&position));
        };
        uint32_t position = words(consumer).load(std::memory_order_acquire);
        int count = 0;
        while (true) {
            const uint32_t written = words(producer).load(std::memory_order_acquire);
            if (library == Library::COMPARES_WORDS ? position >= written : position == written) {
                return count;
            }
            char* header = &records[position & (RING_BYTES - 1)];
            const uint32_t length = std::atomic_ref(*reinterpret_cast<uint32_t*>(header))
                                        .load(std::memory_order_acquire);
            if ((length & BPF_RINGBUF_BUSY_BIT) != 0) {
                return count;
            }
            const uint32_t size = length & ~BPF_RINGBUF_DISCARD_BIT;
            position += (size + BPF_RINGBUF_HDR_SZ + 7) / 8 * 8;
            int result = 0;
            if (size == length) {
                result = onRecord(ctx, header + BPF_RINGBUF_HDR_SZ, size);
                ++count;
            }
            words(consumer).store(position, std::memory_order_release);
            if (result < 0) {
                return result;
            }
        }
    }

    // Between the two positions, as the kernel sees them.
    uint64_t waiting() {
        return static_cast<Position>(kernelPosition(producer).load() -
                                     kernelPosition(consumer).load());
    }

  private:
    static std::atomic_ref<Position> kernelPosition(uint64_t& position) {
        return std::atomic_ref(reinterpret_cast<Position&>(position));
    }

    alignas(8) uint64_t consumer;
    alignas(8) uint64_t producer;
    uint32_t* lastHeader = nullptr;
    // Only a record that begins before the end runs past it, so the second half needs no copy.
    alignas(8) std::array<char, 2 * RING_BYTES> records{};
};

// What arrived.
struct Received {
    std::vector<uint64_t> sequences;
    int answer = 0;
    std::function<void()> meanwhile = [] {};  // while a record is handled

    static int onRecord(void* ctx, void* data, size_t /*size*/) {
        auto* self = static_cast<Received*>(ctx);
        uint64_t sequence = 0;
        std::memcpy(&sequence, data, sizeof(sequence));
        self->sequences.push_back(sequence);
        self->meanwhile();
        return self->answer;
    }
};

template <class Position, Library LIBRARY>
struct Kind {
    using Width = Position;
    static constexpr Library LIBBPF = LIBRARY;
};

struct KindName {
    template <class Kind>
    static std::string GetName(int /*index*/) {
        return std::to_string(8 * sizeof(typename Kind::Width)) + "BitKernel" +
               (Kind::LIBBPF == Library::COMPARES_WORDS ? "LibbpfComparesWords"
                                                        : "LibbpfComparesDifference");
    }
};

template <class Kind>
class RingWrapTest : public testing::Test {
  protected:
    using Ring = FakeRing<typename Kind::Width>;

    struct Reader {
        explicit Reader(Ring* ring) : ring(ring), wrap(ring->view(), Received::onRecord, &got) {}
        int take() {
            return wrap.take([this] {
                return ring->readAsLibrary(Kind::LIBBPF, RingWrap::onLibraryRecord, &wrap);
            });
        }
        Ring* ring;
        Received got;
        RingWrap wrap;
    };

    static void expectSequence(const Received& got, uint64_t count) {
        ASSERT_EQ(got.sequences.size(), count);
        for (uint64_t i = 0; i < count; ++i) {
            ASSERT_EQ(got.sequences[i], i);
        }
    }
};

using Kinds =
    testing::Types<Kind<uint64_t, Library::COMPARES_WORDS>, Kind<uint32_t, Library::COMPARES_WORDS>,
                   Kind<uint64_t, Library::COMPARES_DIFFERENCE>,
                   Kind<uint32_t, Library::COMPARES_DIFFERENCE>>;
TYPED_TEST_SUITE(RingWrapTest, Kinds, KindName);

// Records of all sizes, read in portions of all sizes, written between the readings and during
// them; in every fourth round one ends exactly at the wrap.
TYPED_TEST(RingWrapTest, EveryRecordArrivesOnceAndInOrder) {
    constexpr int ROUNDS = 200;
    constexpr uint64_t COUNT = 1000;
    for (int round = 0; round < ROUNDS; ++round) {
        std::mt19937 random(round);
        const bool isEven = round % 4 == 0;
        typename TestFixture::Ring ring(3 * WRAP - 4 * RING_BYTES -
                                        (isEven ? 0 : 8 * (round % 64)));
        typename TestFixture::Reader reader(&ring);
        uint64_t written = 0;
        const auto write = [&] {
            return written < COUNT && ring.write(written, isEven ? 24 : 8 + random() % 60) &&
                   ++written != 0;
        };
        reader.got.meanwhile = [&] {
            if (random() % 16 != 0) {
                write();
            }
        };
        while (written < COUNT) {
            while (random() % 8 != 0 && write()) {
            }
            ASSERT_GE(reader.take(), 0);
            ASSERT_EQ(ring.waiting(), 0U) << "round " << round;
        }
        ASSERT_NO_FATAL_FAILURE(this->expectSequence(reader.got, COUNT)) << "round " << round;
    }
}

TYPED_TEST(RingWrapTest, NothingGoesPastARecordThatIsBeingWritten) {
    typename TestFixture::Ring ring(WRAP - 16);
    typename TestFixture::Reader reader(&ring);
    ASSERT_TRUE(ring.write(0, 64, BPF_RINGBUF_DISCARD_BIT));
    ASSERT_TRUE(ring.write(0, 64));
    EXPECT_GE(reader.take(), 0);
    this->expectSequence(reader.got, 1);

    typename TestFixture::Ring held(WRAP - 16);
    typename TestFixture::Reader waiting(&held);
    ASSERT_TRUE(held.write(0, 64, BPF_RINGBUF_BUSY_BIT));
    EXPECT_GE(waiting.take(), 0);
    this->expectSequence(waiting.got, 0);
    held.commitLast(64);
    EXPECT_GE(waiting.take(), 0);
    this->expectSequence(waiting.got, 1);
}

TYPED_TEST(RingWrapTest, ARefusedRecordIsConsumedAndEndsTheReading) {
    typename TestFixture::Ring ring(WRAP - 2 * RING_BYTES);
    typename TestFixture::Reader reader(&ring);
    reader.got.answer = -ECANCELED;
    constexpr uint64_t COUNT = 4 * RING_BYTES / 32;
    for (uint64_t i = 0; i < COUNT; ++i) {
        ASSERT_TRUE(ring.write(i, 24));
        ASSERT_EQ(reader.take(), -ECANCELED);
        ASSERT_EQ(ring.waiting(), 0U);
    }
    this->expectSequence(reader.got, COUNT);
}

TYPED_TEST(RingWrapTest, AWriterMayRunMeanwhile) {
    constexpr uint64_t COUNT = 2000;
    constexpr int ROUNDS = 20;
    for (int round = 0; round < ROUNDS; ++round) {
        typename TestFixture::Ring ring(WRAP - 4 * RING_BYTES);
        typename TestFixture::Reader reader(&ring);
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        const auto isTime = [deadline] { return std::chrono::steady_clock::now() < deadline; };
        std::thread writer([&] {
            for (uint64_t i = 0; i < COUNT && isTime();) {
                if (ring.write(i, 40 + i % 7 * 8)) {
                    ++i;
                } else {
                    std::this_thread::yield();
                }
            }
        });
        while (reader.got.sequences.size() < COUNT && isTime() && reader.take() >= 0) {
            std::this_thread::yield();
        }
        writer.join();
        ASSERT_NO_FATAL_FAILURE(this->expectSequence(reader.got, COUNT));
    }
}

// What the tests above are about: without the help, either libbpf comes to a stop. On a 32-bit
// kernel the second does not.
TYPED_TEST(RingWrapTest, TheLibraryAloneStops) {
    typename TestFixture::Ring ring(WRAP - 2 * RING_BYTES - 16);
    Received got;
    constexpr uint64_t COUNT = 4 * RING_BYTES / 32;
    uint64_t written = 0;
    for (uint64_t i = 0; i < COUNT; ++i) {
        written += ring.write(written, 24);
        ring.readAsLibrary(TypeParam::LIBBPF, Received::onRecord, &got);
    }
    const bool passes = TypeParam::LIBBPF == Library::COMPARES_DIFFERENCE &&
                        sizeof(typename TypeParam::Width) == sizeof(uint32_t);
    EXPECT_EQ(got.sequences.size() == COUNT, passes);
}

}  // namespace
}  // namespace Tesu::Bpf
