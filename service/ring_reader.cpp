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
    if (!reader->map(&reader->consumerPage, mapFd, page, PROT_READ | PROT_WRITE, 0)) {
        return nullptr;
    }
    if constexpr (NEEDS_HELP_OVER_WRAP) {
        if (!reader->mapForWrap(mapFd, onRecord, ctx)) {
            return nullptr;
        }
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
bool RingReader::mapForWrap(int mapFd, ring_buffer_sample_fn onRecord, void* ctx) {
    if (ringSize > MAX_RING_SIZE) {
        errno = EFBIG;
        return false;
    }
    const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    if (!map(&producerPageAndRecords, mapFd, page + 2 * size_t{ringSize}, PROT_READ, page)) {
        return false;
    }
    const auto* producerPage = static_cast<const char*>(producerPageAndRecords.address);
    wrap = std::make_unique<RingWrap>(
        RingWrap::Ring{.consumer = static_cast<uint64_t*>(consumerPage.address),
                       .producer = reinterpret_cast<const uint32_t*>(producerPage),
                       .records = producerPage + page,
                       .size = ringSize},
        onRecord, ctx);
    return true;
}

RingReader::~RingReader() {
    for (const Mapping& mapping : {consumerPage, producerPageAndRecords}) {
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
