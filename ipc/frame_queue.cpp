// SPDX-License-Identifier: Apache-2.0
#include "ipc/frame_queue.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>

#include "ipc/ipc_package.h"

namespace {

// Bytes of a block with its head: some hundred records.
constexpr size_t BLOCK_SIZE = 16384;

}  // namespace

struct FrameQueue::Block {
    Block* next = nullptr;
    size_t capacity = 0;  // bytes behind this head
    size_t begin = 0;     // frames lie in [begin, end)
    size_t end = 0;
    size_t frames = 0;

    char* bytes() { return reinterpret_cast<char*>(this + 1); }
};

FrameQueue::~FrameQueue() {
    while (first != nullptr) {
        Block* const block = first;
        first = block->next;
        std::free(block);
    }
}

char* FrameQueue::append(uint32_t size) {
    const size_t frameSize = IPC_FRAME_HEADER_SIZE + size_t{size};
    if (last == nullptr || last->capacity - last->end < frameSize) {
        const size_t capacity = std::max(BLOCK_SIZE - sizeof(Block), frameSize);
        void* const memory = std::malloc(sizeof(Block) + capacity);
        if (memory == nullptr) {
            return nullptr;
        }
        auto* const block = new (memory) Block{.capacity = capacity};
        (last == nullptr ? first : last->next) = block;
        last = block;
    }
    char* const frame = last->bytes() + last->end;
    std::memcpy(frame, &size, IPC_FRAME_HEADER_SIZE);
    last->end += frameSize;
    ++last->frames;
    ++frames;
    return frame + IPC_FRAME_HEADER_SIZE;
}

size_t FrameQueue::take(char* to, size_t room, size_t limit) {
    size_t taken = 0;
    while (frames != 0) {
        size_t bytes = first->end - first->begin;
        size_t count = first->frames;
        const bool isWhole = bytes <= room - taken && count <= limit;
        if (!isWhole) {
            bytes = bytesThatFit(room - taken, limit, &count);
        }
        if (bytes != 0) {
            std::memcpy(to + taken, first->bytes() + first->begin, bytes);
        }
        taken += bytes;
        limit -= count;
        frames -= count;
        first->frames -= count;
        first->begin += bytes;
        if (!isWhole) {
            break;
        }
        dropEmptyBlock();
    }
    return taken;
}

// Of the first block's frames, so many from its front as fit and are wanted.
size_t FrameQueue::bytesThatFit(size_t room, size_t limit, size_t* count) const {
    size_t bytes = 0;
    for (*count = 0; *count < limit; ++*count) {
        const char* const frame = first->bytes() + first->begin + bytes;
        const size_t size = IPC_FRAME_HEADER_SIZE + size_t{ReadWord(frame)};
        if (size > room - bytes) {
            break;
        }
        bytes += size;
    }
    return bytes;
}

void FrameQueue::dropEmptyBlock() {
    if (first == last) {
        first->begin = first->end = 0;
        return;
    }
    Block* const emptied = first;
    first = first->next;
    std::free(emptied);
}
