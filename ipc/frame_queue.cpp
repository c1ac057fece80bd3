// SPDX-License-Identifier: Apache-2.0
#include "ipc/frame_queue.h"

#include <cstdint>
#include <cstring>
#include <utility>

#include "ipc/ipc_package.h"

namespace {

// The part of a range that its first frames make up: as many as fit into `room`, at most `limit`.
FrameRange Front(const FrameRange& range, size_t room, size_t limit) {
    FrameRange front{.block = {}, .frames = range.frames};
    if (range.bytes <= room && range.count <= limit) {
        front.bytes = range.bytes;
        front.count = range.count;
        return front;
    }
    while (front.count < limit && front.bytes < range.bytes) {
        const size_t size = IPC_FRAME_HEADER_SIZE + size_t{ReadWord(range.frames + front.bytes)};
        if (size > room - front.bytes) {
            break;
        }
        front.bytes += size;
        ++front.count;
    }
    return front;
}

}  // namespace

void FrameQueue::append(FrameRange range) {
    const size_t count = range.count;
    const size_t bytes = range.bytes;
    FrameRange* const last = ranges.empty() ? nullptr : &ranges.back();
    if (last != nullptr && last->block == range.block &&
        last->frames + last->bytes == range.frames) {
        last->count += count;
        last->bytes += bytes;
    } else {
        ranges.push_back(std::move(range));
    }
    frameCount += count;
    frameBytes += bytes;
}

size_t FrameQueue::take(char* to, size_t room, size_t limit) {
    size_t taken = 0;
    while (!ranges.empty()) {
        FrameRange& first = ranges.front();
        const FrameRange front = Front(first, room - taken, limit);
        if (front.bytes == 0) {
            break;
        }
        std::memcpy(to + taken, front.frames, front.bytes);
        taken += front.bytes;
        limit -= front.count;
        frameCount -= front.count;
        if (front.bytes < first.bytes) {
            first.frames += front.bytes;
            first.bytes -= front.bytes;
            first.count -= front.count;
        } else {
            ranges.pop_front();
        }
    }
    frameBytes -= taken;
    return taken;
}
