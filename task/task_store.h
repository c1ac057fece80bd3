// SPDX-License-Identifier: Apache-2.0
//
// Where the records of the task table lie: close together, so that all of them are copied in a few
// milliseconds, and each at one address for as long as it is there.
#pragma once

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <type_traits>
#include <vector>

#include "task/pid_index.h"
#include "task/tesu_task.h"

namespace Tesu::Bpf {

// Records by process id. No lock of its own. Memory is kept for records to come, as much as the
// most records at one time took.
class TaskStore {
  public:
    static constexpr size_t CHUNK_SLOTS = 64;
    struct Chunk {
        uint64_t used = 0;  // a bit per slot
        std::array<int32_t, CHUNK_SLOTS> pids{};
        // A record lies in two cache lines.
        alignas(64) std::array<TesuTask, CHUNK_SLOTS> tasks{};
    };
    static_assert(std::is_trivially_copyable_v<Chunk> && sizeof(TesuTask) == 128);

    // Null when the id is absent. Valid until the record is erased.
    TesuTask* find(int32_t pid) {
        const uint32_t slot = slots.find(pid);
        return slot == PidIndex::NONE ? nullptr
                                      : &chunks[slot / CHUNK_SLOTS]->tasks[slot % CHUNK_SLOTS];
    }
    // Overwrites what is there.
    void put(int32_t pid, const TesuTask& task);
    // Whether it was there.
    bool erase(int32_t pid);
    size_t size() const { return slots.size(); }
    // Calls `visit` with each id and its record.
    template <class Visit>
    void forEach(Visit visit) const {
        for (const auto& chunk : chunks) {
            for (uint64_t used = chunk->used; used != 0; used &= used - 1) {
                const auto slot = static_cast<size_t>(std::countr_zero(used));
                visit(chunk->pids[slot], chunk->tasks[slot]);
            }
        }
    }

    size_t chunkCount() const { return chunks.size(); }
    // All records. `copy` has room for chunkCount().
    void copyTo(Chunk* copy) const;

  private:
    uint32_t takeSlot();

    PidIndex slots;
    std::vector<uint32_t> freeSlots;
    std::vector<std::unique_ptr<Chunk>> chunks;
};

}  // namespace Tesu::Bpf
