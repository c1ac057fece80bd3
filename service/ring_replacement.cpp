// SPDX-License-Identifier: Apache-2.0
#include "service/ring_replacement.h"

#include <bpf/bpf.h>
#include <poll.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

namespace Tesu::Bpf {

namespace {

constexpr const char* RING_NAME = "ringbuf_map";
// Dots are not allowed in names of a bpf file system.
constexpr const char* NEW_SUFFIX = "_new";
// Bytes until a replacement that failed is tried again.
constexpr uint64_t RETRY_AFTER = uint64_t{1} << 28;

class Descriptor {
  public:
    explicit Descriptor(int fd) : fd(fd) {}
    ~Descriptor() {
        if (fd >= 0) {
            close(fd);
        }
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int get() const { return fd; }

  private:
    const int fd;
};

// Negative, with errno set, on failure.
int MakeRing(uint32_t size) {
    return bpf_map_create(BPF_MAP_TYPE_RINGBUF, RING_NAME, 0, 0, size, nullptr);
}

}  // namespace

// To a 64-bit kernel a ring whose consumer says 4 GiB has something to read; a 32-bit kernel sees
// the zero of the low word.
std::optional<bool> IsRingPosition32Bits() {
    if constexpr (sizeof(unsigned long) == sizeof(uint64_t)) {
        return false;
    }
    const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    const Descriptor ring(MakeRing(static_cast<uint32_t>(page)));
    void* const consumer =
        ring.get() < 0 ? MAP_FAILED
                       : mmap(nullptr, page, PROT_READ | PROT_WRITE, MAP_SHARED, ring.get(), 0);
    if (consumer == MAP_FAILED) {
        return std::nullopt;
    }
    *static_cast<volatile uint64_t*>(consumer) = uint64_t{1} << 32;
    pollfd readable = {.fd = ring.get(), .events = POLLIN, .revents = 0};
    const int ready = ::poll(&readable, 1, 0);
    munmap(consumer, page);
    return ready < 0 ? std::nullopt : std::optional(ready == 0);
}

// When the service ends between the last two steps, the pin is of a ring that nobody writes into.
// That is mended by the next service, which begins with a replacement.
bool RingReplacement::install(int ringFd) const {
    const Descriptor current(bpf_obj_get(currentPath.c_str()));
    if (current.get() < 0) {
        return false;
    }
    const std::string newPath = ringPath + NEW_SUFFIX;
    unlink(newPath.c_str());
    if (bpf_obj_pin(ringFd, newPath.c_str()) != 0) {
        return false;
    }
    const uint32_t key = 0;
    // Returns when no program can hold the old ring any more.
    if (bpf_map_update_elem(current.get(), &key, &ringFd, BPF_ANY) != 0) {
        const int error = errno;
        unlink(newPath.c_str());
        errno = error;
        return false;
    }
    if (rename(newPath.c_str(), ringPath.c_str()) != 0) {
        unlink(newPath.c_str());  // programs and service have the new ring all the same
    }
    return true;
}

bool RingReplacement::replace(std::unique_ptr<RingReader>* reader, ring_buffer_sample_fn onRecord,
                              void* ctx) {
    const Descriptor ring(MakeRing((*reader)->size()));
    std::unique_ptr<RingReader> next =
        ring.get() >= 0 ? RingReader::Open(ring.get(), onRecord, ctx) : nullptr;
    if (next == nullptr || !install(ring.get())) {
        replaceAt += RETRY_AFTER;
        return false;
    }
    // A negative result ended the reading after a record; there may be more.
    int result = 0;
    do {
        result = (*reader)->consume();
    } while (result < 0 && result != -ECANCELED);
    *reader = std::move(next);
    return true;
}

}  // namespace Tesu::Bpf
