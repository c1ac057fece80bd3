// SPDX-License-Identifier: Apache-2.0
//
// A number for each process id: a hash table of one array, probed one place after the other, so
// that a look-up among a hundred thousand ids costs one cache miss.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace Tesu::Bpf {

// Any id, negative ones too. No thread of its own, no lock.
class PidIndex {
  public:
    // The number of an absent id.
    static constexpr uint32_t NONE = UINT32_MAX;

    PidIndex();

    uint32_t find(int32_t pid) const { return places[placeOf(pid)].number; }
    // `pid` is absent, `number` not NONE.
    void insert(int32_t pid, uint32_t number);
    // The number it had.
    uint32_t erase(int32_t pid);

    size_t size() const { return count; }

  private:
    struct Place {
        int32_t pid = 0;
        uint32_t number = NONE;  // NONE: the place is free
    };

    size_t homeOf(int32_t pid) const {
        // Multiplicative hashing: the upper bits depend on every bit of the id.
        return (static_cast<uint32_t>(pid) * UINT32_C(2654435769)) >> shift;
    }
    size_t after(size_t place) const { return (place + 1) & (places.size() - 1); }
    // Where the id is or, when it is absent, the free place where it belongs.
    size_t placeOf(int32_t pid) const {
        size_t place = homeOf(pid);
        while (places[place].number != NONE && places[place].pid != pid) {
            place = after(place);
        }
        return place;
    }
    void grow();

    // No place between an id's home and its own is free. A power of two of places, at most half of
    // them taken, so that every search ends.
    std::vector<Place> places;
    unsigned shift;  // 32 less the power
    size_t count = 0;
};

}  // namespace Tesu::Bpf
