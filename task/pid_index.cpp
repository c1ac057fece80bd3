// SPDX-License-Identifier: Apache-2.0
#include "task/pid_index.h"

#include <utility>

namespace Tesu::Bpf {

namespace {

constexpr unsigned FIRST_POWER = 6;

}  // namespace

PidIndex::PidIndex() : places(size_t{1} << FIRST_POWER), shift(32 - FIRST_POWER) {}

void PidIndex::insert(int32_t pid, uint32_t number) {
    if (2 * (count + 1) > places.size()) {
        grow();
    }
    places[placeOf(pid)] = {pid, number};
    ++count;
}

uint32_t PidIndex::erase(int32_t pid) {
    size_t hole = placeOf(pid);
    const uint32_t number = places[hole].number;
    if (number == NONE) {
        return NONE;
    }
    // What follows moves into the hole unless its home lies behind that, and leaves a hole itself.
    const size_t mask = places.size() - 1;
    for (size_t place = after(hole); places[place].number != NONE; place = after(place)) {
        const size_t fromHome = (place - homeOf(places[place].pid)) & mask;
        const size_t fromHole = (place - hole) & mask;
        if (fromHome >= fromHole) {
            places[hole] = places[place];
            hole = place;
        }
    }
    places[hole] = {};
    --count;
    return number;
}

void PidIndex::grow() {
    const std::vector<Place> former = std::exchange(places, std::vector<Place>(2 * places.size()));
    --shift;
    for (const Place& place : former) {
        if (place.number != NONE) {
            places[placeOf(place.pid)] = place;
        }
    }
}

}  // namespace Tesu::Bpf
