// SPDX-License-Identifier: Apache-2.0
#include "service/ring_reader.h"

#include <bpf/bpf.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <utility>

namespace Tesu::Bpf {

namespace {

// libbpf counts positions in an unsigned long.
constexpr bool NEEDS_HELP_OVER_WRAP = sizeof(unsigned long) == sizeof(uint32_t);
// Bytes; twice a larger one does not fit into 32 bits.
constexpr uint32_t MAX_RING_SIZE = 1U << 30;

}  // namespace

std::unique_ptr<RingReader> RingReader::Open(int mapFd, ring_buffer_sample_fn onRecord, void* ctx) {
    std::unique_ptr<RingReader> reader(new RingReader);
    bpf_map_info info = {};
    uint32_t infoSize = sizeof(info);
    if (bpf_obj_get_info_by_fd(mapFd, &info, &infoSize) != 0) {
        return nullptr;
    }
    reader->ringSize = info.max_entries;
    const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    if (!reader->map(&reader->consumerPage, mapFd, page, PROT_READ | PROT_WRITE, 0) ||
        !reader->mapProducer(mapFd)) {
        return nullptr;
    }
    if constexpr (NEEDS_HELP_OVER_WRAP) {
        reader->helpOverWrap(onRecord, ctx);
        onRecord = RingWrap::onLibraryRecord;
        ctx = reader->wrap.get();
    }
    reader->library.reset(ring_buffer__new(mapFd, onRecord, ctx, nullptr));
    return reader->library != nullptr ? std::move(reader) : nullptr;
}

bool RingReader::map(Mapping* mapping, int mapFd, size_t size, int protection, size_t offset) {
    void* address = mmap(nullptr, size, protection, MAP_SHARED, mapFd, static_cast<off_t>(offset));
    if (address == MAP_FAILED) {
        return false;
    }
    *mapping = {.address = address, .size = size};
    return true;
}

// The kernel shows a ring as the consumer's page, the producer's page, and the records twice.
bool RingReader::mapProducer(int mapFd) {
    if (NEEDS_HELP_OVER_WRAP && ringSize > MAX_RING_SIZE) {
        errno = EFBIG;
        return false;
    }
    const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    const size_t records = NEEDS_HELP_OVER_WRAP ? 2 * size_t{ringSize} : 0;
    return map(&producerPage, mapFd, page + records, PROT_READ, page);
}

void RingReader::helpOverWrap(ring_buffer_sample_fn onRecord, void* ctx) {
    const auto* producer = static_cast<const char*>(producerPage.address);
    wrap = std::make_unique<RingWrap>(
        RingWrap::Ring{.consumer = static_cast<uint64_t*>(consumerPage.address),
                       .producer = reinterpret_cast<const uint32_t*>(producer),
                       .records = producer + sysconf(_SC_PAGESIZE),
                       .size = ringSize},
        onRecord, ctx);
}

// The low words, since a kernel's positions may have no more.
uint32_t RingReader::waiting() const {
    const auto* producer = static_cast<const uint32_t*>(producerPage.address);
    return __atomic_load_n(producer, __ATOMIC_ACQUIRE) - static_cast<uint32_t>(position());
}

RingReader::~RingReader() {
    for (const Mapping& mapping : {consumerPage, producerPage}) {
        if (mapping.address != nullptr) {
            munmap(mapping.address, mapping.size);
        }
    }
}

int RingReader::consume() {
    const auto read = [this] { return ring_buffer__consume(library.get()); };
    if constexpr (NEEDS_HELP_OVER_WRAP) {
        return wrap->take(read);
    } else {
        return read();
    }
}

}  // namespace Tesu::Bpf
