// SPDX-License-Identifier: Apache-2.0
#include "client/metrics/named_figures.h"

#include <fnmatch.h>

#include <algorithm>

#include "client/text/terminal_text.h"

namespace Tesu::Bpf {

bool NamedFigures::isWanted(const std::string& name) const {
    return globs.empty() || std::ranges::any_of(globs, [&](const std::string& glob) {
               return fnmatch(glob.c_str(), name.c_str(), 0) == 0;
           });
}

// Its own figures, or those of the names that have none.
NameFigures& NamedFigures::find(std::string_view name, bool isKernelThread, int64_t now) {
    // A label without a value would be none; and what calls itself the kernel is not.
    const std::string label = isKernelThread   ? KERNEL
                              : name == KERNEL ? OTHER
                              : name.empty()   ? "[nameless]"
                                               : ToValidUtf8(name);
    auto found = names.find(label);
    if (found == names.end()) {
        const size_t taken = names.size() - names.count(OTHER) - names.count(KERNEL);
        const bool isWelcome = isKernelThread || isWanted(label);
        const bool hasPlace = isKernelThread || taken < maxNames;
        if (isWelcome && !hasPlace && droppedNames.insert(label).second) {
            ++dropped;
            if (droppedNames.size() > MAX_DROPPED_KNOWN) {
                droppedNames.clear();
            }
        }
        found = names.try_emplace(isWelcome && hasPlace ? label : OTHER).first;
    }
    found->second.lastSeen = now;
    return found->second;
}

void NamedFigures::addExit(std::string_view name, bool isKernelThread, bool isYoung, int64_t now) {
    NameFigures& figures = find(name, isKernelThread, now);
    ++figures.exits;
    figures.youngExits += isYoung ? 1 : 0;
}

void NamedFigures::survey(const ProcessModel& model, int64_t now) {
    for (auto& [name, figures] : names) {
        figures = NameFigures{
            .exits = figures.exits, .youngExits = figures.youngExits, .lastSeen = figures.lastSeen};
    }
    model.forEach([&](const ProcessRow& row) {
        NameFigures& figures = find(row.name, row.isKernelThread, now);
        ++figures.processes;
        figures.threads += row.threads;
        figures.areFdsKnown = figures.areFdsKnown && row.openFds.has_value();
        figures.openFds += row.openFds.value_or(0);
        for (size_t member = 0; member < RSS_MEMBER_COUNT; ++member) {
            figures.memory[member] += row.memory[member];
        }
        figures.largestResident = std::max(figures.largestResident, row.resident);
    });
    std::erase_if(names, [now](const auto& entry) { return now - entry.second.lastSeen > MEMORY; });
}

}  // namespace Tesu::Bpf
