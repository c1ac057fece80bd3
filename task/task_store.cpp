// SPDX-License-Identifier: Apache-2.0
#include "task/task_store.h"

namespace Tesu::Bpf {

void TaskStore::put(int32_t pid, const TesuTask& task) {
    TesuTask* present = find(pid);
    if (present == nullptr) {
        const uint32_t slot = takeSlot();
        slots.insert(pid, slot);
        Chunk& chunk = *chunks[slot / CHUNK_SLOTS];
        const size_t inChunk = slot % CHUNK_SLOTS;
        chunk.used |= uint64_t{1} << inChunk;
        chunk.pids[inChunk] = pid;
        present = &chunk.tasks[inChunk];
    }
    *present = task;
}

bool TaskStore::erase(int32_t pid) {
    const uint32_t slot = slots.erase(pid);
    if (slot == PidIndex::NONE) {
        return false;
    }
    chunks[slot / CHUNK_SLOTS]->used &= ~(uint64_t{1} << slot % CHUNK_SLOTS);
    freeSlots.push_back(slot);
    return true;
}

void TaskStore::copyTo(Chunk* copy) const {
    for (const auto& chunk : chunks) {
        *copy++ = *chunk;
    }
}

// One that was freed last is the likeliest to be in a cache.
uint32_t TaskStore::takeSlot() {
    if (freeSlots.empty()) {
        const auto first = static_cast<uint32_t>(chunks.size() * CHUNK_SLOTS);
        chunks.push_back(std::make_unique<Chunk>());
        for (uint32_t slot = first + CHUNK_SLOTS; slot > first; --slot) {
            freeSlots.push_back(slot - 1);
        }
    }
    const uint32_t slot = freeSlots.back();
    freeSlots.pop_back();
    return slot;
}

}  // namespace Tesu::Bpf
