// SPDX-License-Identifier: Apache-2.0
#include "model/crash_loops.h"

#include <algorithm>

namespace Tesu::Bpf {

void CrashLoops::addExit(std::string_view name, int64_t lifetime, int64_t time) {
    if (lifetime < 0 || lifetime > SHORT_LIFE || time < 0) {
        return;
    }
    const auto [found, isNew] = names.try_emplace(std::string(name));
    Exits& exits = found->second;
    if (isNew) {
        exits.counts.record(time / SLOT, 0);
    }
    // Records of two CPUs may come a little out of order: the older one counts with the newer.
    exits.counts.record(time / SLOT + 1, ++exits.count);
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
    return static_cast<uint32_t>(exits.counts.rise(now / SLOT + 1, SLOTS));
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
