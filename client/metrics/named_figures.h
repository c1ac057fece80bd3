// SPDX-License-Identifier: Apache-2.0
//
// Figures by the name of processes, for a limited number of names: whoever may start a process may
// give it any name, and each name costs memory here and a series at whoever collects them.
//
// Pure; used by one thread at a time. Times are monotonic nanoseconds.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "model/process_model.h"

namespace Tesu::Bpf {

struct NameFigures {
    // Of its processes, as of the last survey.
    int64_t processes = 0;
    int64_t threads = 0;
    int64_t openFds = 0;
    bool areFdsKnown = true;                         // of every one of them
    std::array<int64_t, RSS_MEMBER_COUNT> memory{};  // bytes, by RssMember
    int64_t largestResident = 0;                     // bytes, of a single process

    // Since the name is known.
    uint64_t exits = 0;
    uint64_t youngExits = 0;

    int64_t lastSeen = 0;  // when a process of it lived or ended
};

class NamedFigures {
  public:
    // How long a name without processes is remembered.
    static constexpr int64_t MEMORY = 600'000'000'000;
    // Names beside the limited ones: what found no place, and all threads of the kernel's own.
    static constexpr const char* OTHER = "other";
    static constexpr const char* KERNEL = "[kernel]";

    // globs: names that match none of them count as OTHER; none: all names match.
    NamedFigures(size_t maxNames, std::vector<std::string> globs)
        : maxNames(maxNames), globs(std::move(globs)) {}

    // A process ended. `name` as the kernel has it, any bytes.
    void addExit(std::string_view name, bool isKernelThread, bool isYoung, int64_t now);

    // Sizes up every process anew, and forgets the names whose time has come.
    void survey(const ProcessModel& model, int64_t now);

    // By name, in valid UTF-8.
    const std::map<std::string, NameFigures>& figures() const { return names; }

    // Names that found no place, each once until many others did.
    uint64_t namesDropped() const { return dropped; }

  private:
    static constexpr size_t MAX_DROPPED_KNOWN = 4096;

    NameFigures& find(std::string_view name, bool isKernelThread, int64_t now);
    bool isWanted(const std::string& name) const;

    const size_t maxNames;
    const std::vector<std::string> globs;
    std::map<std::string, NameFigures> names;
    std::set<std::string> droppedNames;  // the last of them
    uint64_t dropped = 0;
};

}  // namespace Tesu::Bpf
