// SPDX-License-Identifier: Apache-2.0
//
// The memory of outgoing frames. Frames are written once and may be queued for any number of
// connections: each queue holds a range of a block, and a block lives as long as one of its ranges.
// A client that does not keep up costs nothing that another one pays already, and the memory goes
// back to the system with its last range.
//
// Any thread may copy and drop ranges. A FrameWriter belongs to its owner's lock.
#pragma once

#include <atomic>
#include <cstddef>
#include <utility>

class FrameBlock {
  public:
    // A counted reference.
    class Ref {
      public:
        Ref() = default;
        Ref(const Ref& other) : block(other.block) { hold(); }
        Ref(Ref&& other) noexcept : block(std::exchange(other.block, nullptr)) {}
        Ref& operator=(Ref other) noexcept {
            std::swap(block, other.block);
            return *this;
        }
        ~Ref();
        FrameBlock* operator->() const { return block; }
        bool operator==(const Ref&) const = default;
        explicit operator bool() const { return block != nullptr; }

      private:
        friend class FrameBlock;
        explicit Ref(FrameBlock* block) : block(block) {}
        void hold() const {
            if (block != nullptr) {
                block->references.fetch_add(1, std::memory_order_relaxed);
            }
        }
        FrameBlock* block = nullptr;
    };

    FrameBlock(const FrameBlock&) = delete;
    FrameBlock& operator=(const FrameBlock&) = delete;

    // With room for `bytes` at least. None, with errno set, without memory.
    static Ref Make(size_t bytes);
    // Bytes of all blocks.
    static size_t BytesInUse() { return bytesInUse.load(std::memory_order_relaxed); }

    char* bytes() { return reinterpret_cast<char*>(this + 1); }
    size_t capacity() const { return size - sizeof(FrameBlock); }
    // Whether the caller has the only reference: what others read of it, they have read.
    bool isUnshared() const { return references.load(std::memory_order_acquire) == 1; }

  private:
    explicit FrameBlock(size_t size) : size(size) {}
    ~FrameBlock() = default;

    static std::atomic<size_t> bytesInUse;

    std::atomic<size_t> references{1};
    const size_t size;  // bytes mapped, this head included
};

// Whole frames, one behind the other as they will lie on the stream.
struct FrameRange {
    FrameBlock::Ref block;
    const char* frames = nullptr;  // in the block
    size_t bytes = 0;
    size_t count = 0;
};

// Fills blocks. One whose ranges have all been dropped is filled again.
class FrameWriter {
  public:
    // Where `bytes` may be written until the next call; null, with errno set, without memory.
    char* reserve(size_t bytes);
    // The first `bytes` of those, in which so many frames have been written.
    FrameRange commit(size_t bytes, size_t count);

  private:
    FrameBlock::Ref block;
    size_t used = 0;
};
