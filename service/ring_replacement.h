// SPDX-License-Identifier: Apache-2.0
//
// Puts a new, empty ring buffer in the place of one that the kernel will soon stop writing into.
//
// A 32-bit kernel counts the bytes of a ring in 32 bits. Since 6.10, and in later long-term
// kernels, it also follows the oldest record that is being written, comparing positions with `<`.
// That stays before 4 GiB when the other positions have wrapped, and one ring's length later the
// kernel takes nothing any more, with the ring empty and for ever. No reader can mend that.
//
// So there the service replaces a ring long before. The programs find their ring in a map of one
// ring, pinned beside it; where there is no such map, a ring is not replaced. No record is lost,
// doubled or late: the kernel returns from the exchange when no program can be writing into the old
// ring any more, and the old one is then read to its end before the new.
//
// The poll thread of the ring.
#pragma once

#include <bpf/libbpf.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "service/ring_reader.h"

namespace Tesu::Bpf {

// Whether positions of rings have 32 bits in this kernel. Makes a ring to find out; nothing, with
// errno set, when it cannot.
std::optional<bool> IsRingPosition32Bits();

class RingReplacement {
  public:
    static constexpr uint64_t NEVER = UINT64_MAX;

    // `ringPath` and `currentPath`: where the ring and the map that tells the programs of it are
    // pinned. Due when `replaceAt` bytes have been read of a ring.
    RingReplacement(std::string ringPath, std::string currentPath, uint64_t replaceAt)
        : ringPath(std::move(ringPath)),
          currentPath(std::move(currentPath)),
          replaceAt(replaceAt) {}

    bool isEver() const { return replaceAt != NEVER; }
    bool isDue(const RingReader& reader) const { return reader.position() >= replaceAt; }

    // Puts a ring of the size of the pinned one into its place and, after the last record of the
    // old ring was handed on, its reader into `reader`. When a callback ends that with -ECANCELED,
    // the rest of the old ring is left. False, with errno set, when everything is as it was; due
    // again some time later.
    bool replace(std::unique_ptr<RingReader>* reader, ring_buffer_sample_fn onRecord,
                 void* ctx = nullptr);

  private:
    // Gives the programs the ring, and it the pin; false when they keep the old one.
    bool install(int ringFd) const;

    const std::string ringPath;
    const std::string currentPath;
    uint64_t replaceAt;
};

}  // namespace Tesu::Bpf
