// SPDX-License-Identifier: Apache-2.0
//
// Carries the reader of a ring buffer over the multiples of 4 GiB in a 32-bit process.
//
// A ring's positions only ever grow: bytes read and bytes written since it was made. The kernel
// keeps them in its own unsigned long, 8 bytes on a 64-bit kernel and 4 on a 32-bit one; libbpf
// counts in the unsigned long of the process. Where that has 4 bytes, it compares low words, so
// that it takes a producer that has passed a multiple of 4 GiB for one that is behind the consumer,
// and stops for ever; versions that compare the difference go on, but on a 64-bit kernel leave the
// consumer's high word behind, so that the kernel takes the ring for full for ever.
//
// Invariant: libbpf consumes only while the producer cannot have passed such a multiple, which is
// while the consumer is more than the ring's size before it. The stretch from there to the other
// side, the ring's size in every 4 GiB, is consumed here.
//
// The same code is right on both kinds of kernel, and need not know which it is on:
//  - how much waits is the difference of the low words, as a ring is far smaller than 4 GiB;
//  - the consumer's position is stored in 8 bytes, at once. A 64-bit kernel needs the carry. A
//    32-bit kernel reads the first four; the next four are its padding: nothing but the consumer's
//    position is in the page that user space may write. Beside the producer's position there are
//    other things in some kernels, so its high word means nothing until one knows which kernel it
//    is, and is never looked at.
//
// One thread at a time; the ring is borrowed.
#pragma once

#include <bpf/libbpf.h>

#include <cstddef>
#include <cstdint>
#include <functional>

namespace Tesu::Bpf {

class RingWrap {
  public:
    // A ring as it is mapped: little-endian.
    struct Ring {
        uint64_t* consumer;        // aligned to 8; written by nobody else but libbpf
        const uint32_t* producer;  // low word
        const char* records;       // mapped twice in a row: a record never ends at the buffer's end
        uint32_t size;             // bytes, a power of two of at most 1 GiB
    };

    // `onRecord` gets each record, be it consumed here or by libbpf, as libbpf would call it: a
    // negative result ends the reading after that record.
    RingWrap(const Ring& ring, ring_buffer_sample_fn onRecord, void* ctx)
        : ring(ring), onRecord(onRecord), ctx(ctx) {}

    // Takes what waits. `library` runs libbpf's reader once, with onLibraryRecord and this object
    // for the callback. 0 or more, or the negative result that ended the reading; errno
    // is that result's.
    int take(const std::function<int()>& library);

    // Hands a record on, and ends libbpf's reading where this class is to go on. (libbpf calls
    // nobody for a record that was discarded. The programs discard none.)
    static int onLibraryRecord(void* wrap, void* data, size_t size);

  private:
    bool isNearWrap(uint32_t consumer) const;
    // While the consumer is near the wrap and there are records. As take().
    int consumeNearWrap();

    const Ring ring;
    const ring_buffer_sample_fn onRecord;
    void* const ctx;
};

}  // namespace Tesu::Bpf
