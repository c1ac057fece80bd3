// SPDX-License-Identifier: Apache-2.0
#include "service/ring_wrap.h"

#include <linux/bpf.h>

#include <bit>
#include <cerrno>
#include <climits>

namespace Tesu::Bpf {

namespace {

static_assert(std::endian::native == std::endian::little, "low words come first");
// The kernel must never see half of a new position.
static_assert(__atomic_always_lock_free(sizeof(uint64_t), nullptr));

// What ends libbpf's reading where this class takes over; errors are -errno and never come near.
constexpr int LEFT_TO_WRAP = -INT_MAX;

// Bytes that a record of `length` takes, with its header and up to the next record.
constexpr uint32_t RoundedLength(uint32_t length) {
    return (length + BPF_RINGBUF_HDR_SZ + 7) / 8 * 8;
}

// Orders the reads of what was written before the word. (The builtins, because Android's library
// has no atomic_ref.)
uint32_t LoadAcquire(const uint32_t* word) {
    return __atomic_load_n(word, __ATOMIC_ACQUIRE);
}

}  // namespace

bool RingWrap::isNearWrap(uint32_t consumer) const {
    const uint32_t toWrap = 0 - consumer;  // 0: at the wrap, with nothing of it before the consumer
    return toWrap != 0 && toWrap <= ring.size;
}

int RingWrap::take(const std::function<int()>& library) {
    while (true) {
        const int result = consumeNearWrap();
        if (result < 0 || isNearWrap(static_cast<uint32_t>(*ring.consumer))) {
            return result;
        }
        const int taken = library();
        if (taken != LEFT_TO_WRAP) {
            return taken;
        }
    }
}

int RingWrap::consumeNearWrap() {
    // libbpf, on this thread, is the only other writer.
    uint64_t position = *ring.consumer;
    while (isNearWrap(static_cast<uint32_t>(position)) &&
           LoadAcquire(ring.producer) != static_cast<uint32_t>(position)) {
        const char* header = ring.records + (position & (ring.size - 1));
        const uint32_t length = LoadAcquire(reinterpret_cast<const uint32_t*>(header));
        if ((length & BPF_RINGBUF_BUSY_BIT) != 0) {
            break;  // reserved, not written yet: the kernel wakes the reader when it is
        }
        const uint32_t size = length & ~BPF_RINGBUF_DISCARD_BIT;
        int result = 0;
        if (size == length) {
            // libbpf's callback has no const either; the memory is mapped for reading only.
            result = onRecord(ctx, const_cast<char*>(header) + BPF_RINGBUF_HDR_SZ, size);
        }
        position += RoundedLength(size);
        __atomic_store_n(ring.consumer, position, __ATOMIC_RELEASE);
        if (result < 0) {
            errno = -result;  // as libbpf does
            return result;
        }
    }
    return 0;
}

int RingWrap::onLibraryRecord(void* wrap, void* data, size_t size) {
    const auto* self = static_cast<const RingWrap*>(wrap);
    const int result = self->onRecord(self->ctx, data, size);
    if (result < 0) {
        return result;
    }
    // libbpf stores the consumer's position after each record, so it is still that of this one.
    const uint32_t next =
        static_cast<uint32_t>(*self->ring.consumer) + RoundedLength(static_cast<uint32_t>(size));
    return self->isNearWrap(next) ? LEFT_TO_WRAP : result;
}

}  // namespace Tesu::Bpf
