// SPDX-License-Identifier: Apache-2.0
#include "client/model/crash_loops.h"

#include <algorithm>

namespace Tesu::Bpf {

void CrashLoops::addExit(std::string_view name, int64_t lifetime, int64_t time) {
    if (lifetime < 0 || lifetime > SHORT_LIFE || time < 0) {
        return;
    }
    const auto [found, isNew] = names.try_emplace(std::string(name));
    Exits& exits = found->second;
    const int64_t slot = time / SLOT;
    if (isNew || slot - exits.lastSlot >= static_cast<int64_t>(SLOTS)) {
        exits.counts.fill(0);
        exits.lastSlot = slot;
    }
    while (exits.lastSlot < slot) {
        ++exits.lastSlot;
        exits.counts[static_cast<size_t>(exits.lastSlot) % SLOTS] = 0;
    }
    // Records of two CPUs may come a little out of order: the older one counts with the newer.
    ++exits.counts[static_cast<size_t>(exits.lastSlot) % SLOTS];
    exits.lastLifetime = lifetime;
    if (names.size() > MAX_NAMES) {
        std::erase_if(
            names, [time](const auto& entry) { return countOf(entry.second, time) < MIN_EXITS; });
        if (names.size() > MAX_NAMES / 2) {
            names.clear();
        }
    }
}

uint32_t CrashLoops::countOf(const Exits& exits, int64_t now) {
    const int64_t age = std::max<int64_t>(now / SLOT - exits.lastSlot, 0);
    uint32_t count = 0;
    const int64_t kept = std::min(static_cast<int64_t>(SLOTS) - age, exits.lastSlot + 1);
    for (int64_t back = 0; back < kept; ++back) {
        count += exits.counts[static_cast<size_t>(exits.lastSlot - back) % SLOTS];
    }
    return count;
}

uint32_t CrashLoops::exitsOf(std::string_view name, int64_t now) const {
    const auto found = names.find(std::string(name));
    const uint32_t count = found == names.end() ? 0 : countOf(found->second, now);
    return count < MIN_EXITS ? 0 : count;
}

std::vector<CrashLoops::Loop> CrashLoops::loops(int64_t now, size_t limit) const {
    std::vector<Loop> found;
    for (const auto& [name, exits] : names) {
        const uint32_t count = countOf(exits, now);
        if (count >= MIN_EXITS) {
            found.push_back({name, count, exits.lastLifetime});
        }
    }
    std::sort(found.begin(), found.end(), [](const Loop& a, const Loop& b) {
        return a.exits != b.exits ? a.exits > b.exits : a.name < b.name;
    });
    found.resize(std::min(found.size(), limit));
    return found;
}

}  // namespace Tesu::Bpf
