// SPDX-License-Identifier: Apache-2.0
//
// Finds crash loops: names whose processes end, again and again, shortly after their start.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace Tesu::Bpf {

// Times are monotonic nanoseconds. Used by one thread at a time.
class YoungExits {
  public:
    // A process that lived no longer ended young.
    static constexpr int64_t YOUNG = 10'000'000'000;
    // How long an exit counts, and how many make a loop.
    static constexpr int64_t WINDOW = 60'000'000'000;
    static constexpr uint32_t LOOP = 3;

    struct Loop {
        std::string name;
        uint32_t exits = 0;        // within the window
        int64_t lastLifetime = 0;  // nanoseconds
    };

    // A process ended at `time`, `lifetime` after its start.
    void note(std::string_view name, int64_t lifetime, int64_t time);

    // How often the name ended young within the window; 0 when it makes no loop.
    uint32_t exitsOf(std::string_view name, int64_t now) const;

    // The names that make loops, most exits first, then by name.
    std::vector<Loop> loops(int64_t now, size_t limit) const;

  private:
    static constexpr size_t SLOTS = 6;
    static constexpr int64_t SLOT = WINDOW / SLOTS;
    // Names are made by whoever forks, so the table has a limit.
    static constexpr size_t MAX_NAMES = 4096;

    struct Exits {
        // Of the last slots, slot n at n modulo SLOTS.
        std::array<uint32_t, SLOTS> counts{};
        int64_t lastSlot = 0;
        int64_t lastLifetime = 0;
    };

    static uint32_t countOf(const Exits& exits, int64_t now);
    void forgetOld(int64_t now);

    std::unordered_map<std::string, Exits> names;
};

}  // namespace Tesu::Bpf
