// SPDX-License-Identifier: Apache-2.0
//
// Reads the records of one ring buffer: libbpf's reader, which in a 32-bit process gets help over
// the multiples of 4 GiB (see ring_wrap.h). In a 64-bit process all reading is
// libbpf's.
//
// One thread at a time. The map's descriptor is borrowed until Open returns; the reader holds the
// ring by its mappings.
#pragma once

#include <bpf/libbpf.h>

#include <cstddef>
#include <cstdint>
#include <memory>

#include "service/ring_wrap.h"

namespace Tesu::Bpf {

class RingReader {
  public:
    // Null, with errno set, on failure. A callback's negative result ends the reading after its
    // record and is the result of the call that was reading; -INT_MAX is not to be used.
    static std::unique_ptr<RingReader> Open(int mapFd, ring_buffer_sample_fn onRecord,
                                            void* ctx = nullptr);
    ~RingReader();
    RingReader(const RingReader&) = delete;
    RingReader& operator=(const RingReader&) = delete;

    // Readable while records wait. Belongs to the reader.
    int epollFd() const { return ring_buffer__epoll_fd(library.get()); }
    // Takes what is there, without a system call. 0 or more, or a negative errno, also in errno.
    int consume();
    // Bytes read of this ring since it was made, with the records' headers.
    uint64_t position() const { return *static_cast<const uint64_t*>(consumerPage.address); }
    // Bytes that wait, with the records' headers, as of a moment ago.
    uint32_t waiting() const;
    // Bytes ever written into this ring.
    uint64_t written() const { return position() + waiting(); }
    // Of the ring, in bytes.
    uint32_t size() const { return ringSize; }

  private:
    using LibraryReader = std::unique_ptr<::ring_buffer, decltype(&ring_buffer__free)>;

    // A part of the ring in this process's memory.
    struct Mapping {
        void* address = nullptr;
        size_t size = 0;
    };

    RingReader() = default;
    bool map(Mapping* mapping, int mapFd, size_t size, int protection, size_t offset);
    bool mapProducer(int mapFd);
    void helpOverWrap(ring_buffer_sample_fn onRecord, void* ctx);

    LibraryReader library{nullptr, &ring_buffer__free};
    Mapping consumerPage;
    // In a 32-bit process the records follow.
    Mapping producerPage;
    uint32_t ringSize = 0;
    std::unique_ptr<RingWrap> wrap;  // in a 32-bit process only
};

}  // namespace Tesu::Bpf
