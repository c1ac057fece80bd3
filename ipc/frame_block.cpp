// SPDX-License-Identifier: Apache-2.0
#include "ipc/frame_block.h"

#include <sys/mman.h>

#include <algorithm>
#include <new>

namespace {

// Bytes of a block with its head. Mapped on its own, so that a page is resident from when it is
// written to and gone with the block.
constexpr size_t BLOCK_SIZE = 65536;

}  // namespace

std::atomic<size_t> FrameBlock::bytesInUse{0};

FrameBlock::Ref FrameBlock::Make(size_t bytes) {
    const size_t size = std::max(BLOCK_SIZE, sizeof(FrameBlock) + bytes);
    void* const memory =
        mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
        return {};
    }
    bytesInUse.fetch_add(size, std::memory_order_relaxed);
    return Ref(new (memory) FrameBlock(size));
}

FrameBlock::Ref::~Ref() {
    if (block != nullptr && block->references.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        const size_t size = block->size;
        block->~FrameBlock();
        munmap(block, size);
        bytesInUse.fetch_sub(size, std::memory_order_relaxed);
    }
}

char* FrameWriter::reserve(size_t bytes) {
    if (block && block->isUnshared()) {
        used = 0;
    }
    if (!block || block->capacity() - used < bytes) {
        FrameBlock::Ref next = FrameBlock::Make(bytes);
        if (!next) {
            return nullptr;
        }
        block = std::move(next);
        used = 0;
    }
    return block->bytes() + used;
}

FrameRange FrameWriter::commit(size_t bytes, size_t count) {
    const char* const frames = block->bytes() + used;
    used += bytes;
    return {.block = block, .frames = frames, .bytes = bytes, .count = count};
}
