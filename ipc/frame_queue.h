// SPDX-License-Identifier: Apache-2.0
//
// The outgoing frames of one connection, in ranges of blocks that other queues may share. Belongs
// to its owner's lock.
#pragma once

#include <cstddef>
#include <deque>

#include "ipc/frame_block.h"

class FrameQueue {
  public:
    // Throws std::bad_alloc, the queue unchanged.
    void append(FrameRange range);
    // Moves whole frames, at most `limit`, as long as they fit into `room` bytes at `to`. Returns
    // how many bytes they are.
    size_t take(char* to, size_t room, size_t limit);

    size_t count() const { return frameCount; }
    size_t bytes() const { return frameBytes; }

  private:
    std::deque<FrameRange> ranges;
    size_t frameCount = 0;
    size_t frameBytes = 0;
};
