// SPDX-License-Identifier: Apache-2.0
//
// The outgoing frames of one connection, one behind the other as they will lie on the stream, in
// blocks that many frames share: a frame costs a copy, and no allocation of its own. An empty queue
// that has held frames keeps one block.
//
// Belongs to its owner's lock.
#pragma once

#include <cstddef>
#include <cstdint>

class FrameQueue {
  public:
    FrameQueue() = default;
    ~FrameQueue();
    FrameQueue(const FrameQueue&) = delete;
    FrameQueue& operator=(const FrameQueue&) = delete;

    // Queues a frame with that length word and returns where its package of `size` bytes is to be
    // written, before anything else is done here. Null, with errno set, without memory for it.
    char* append(uint32_t size);
    // Moves whole frames, at most `limit`, as long as they fit into `room` bytes at `to`. Returns
    // how many bytes they are.
    size_t take(char* to, size_t room, size_t limit);

    size_t count() const { return frames; }

  private:
    struct Block;

    size_t bytesThatFit(size_t room, size_t limit, size_t* count) const;
    void dropEmptyBlock();

    Block* first = nullptr;
    Block* last = nullptr;
    size_t frames = 0;
};
