// SPDX-License-Identifier: Apache-2.0
//
// Finds crash loops: names whose processes exit, again and again, shortly after their start.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "model/sample_history.h"

namespace Tesu::Bpf {

// Times are monotonic nanoseconds. Used by one thread at a time.
class CrashLoops {
  public:
    // A process that lived no longer is short-lived.
    static constexpr int64_t SHORT_LIFE = 10'000'000'000;
    // How long an exit counts, and how many of them make a loop.
    static constexpr int64_t WINDOW = 60'000'000'000;
    static constexpr uint32_t MIN_EXITS = 3;

    struct Loop {
        std::string name;
        uint32_t exits = 0;        // within the window
        int64_t lastLifetime = 0;  // nanoseconds
    };

    // A process exited at `time`, `lifetime` after its start.
    void addExit(std::string_view name, int64_t lifetime, int64_t time);

    // Short-lived processes of this name that exited within the window; 0 when they are no loop.
    uint32_t exitsOf(std::string_view name, int64_t now) const;

    // The names in a loop, most exits first, then by name.
    std::vector<Loop> loops(int64_t now, size_t limit) const;

  private:
    static constexpr size_t SLOTS = 6;
    static constexpr int64_t SLOT = WINDOW / SLOTS;
    // Names are made by whoever forks, so the table has a limit.
    static constexpr size_t MAX_NAMES = 4096;

    struct Exits {
        uint32_t count = 0;  // so far
        // The count at the end of each slot, slot n at n + 1: it begins with none before the first.
        SampleHistory<SLOTS + 1> counts;
        int64_t lastLifetime = 0;
    };

    static uint32_t countOf(const Exits& exits, int64_t now);

    std::unordered_map<std::string, Exits> names;
};

}  // namespace Tesu::Bpf
