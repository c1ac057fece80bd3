// SPDX-License-Identifier: Apache-2.0
//
// A recording as it lies in a file: what a client received of the service, and what it read of
// /proc beside it, in the order in which it got both. docs/recording.md describes it for whoever
// writes a reader of their own.
//
//   file  = block*
//   block = BlockHead, then `length` bytes of body
//
// The first block is a HEADER, and what comes before the first EVENTS is usually a SNAPSHOT. An END
// is the last; a file without one was cut short.
//
// All integers are little-endian, nothing is padded but as written here. Times are CLOCK_MONOTONIC
// in nanoseconds unless they say otherwise, sizes are bytes, text is any bytes without a NUL
// behind.
//
// What may change. A later `minor` may have more types of blocks, which a reader skips, and more
// members at the end of a struct: each struct that something follows says its own size, and a
// reader takes what it knows of it, and 0 for what is not there. Whatever else changes is a new
// `major`, which an older reader refuses.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>

namespace Tesu::Bpf {

static_assert(std::endian::native == std::endian::little, "structs are written as they are");

struct BlockHead {
    uint32_t type;      // BlockType
    uint32_t length;    // of the body, at most MAX_BLOCK_LENGTH
    uint32_t checksum;  // CRC-32 (as in zlib, PNG and Ethernet) of type, length and body
    uint32_t reserved;  // 0
};
static_assert(sizeof(BlockHead) == 16, "file layout");

inline constexpr uint32_t MAX_BLOCK_LENGTH = 1 << 20;

enum BlockType : uint32_t {
    BLOCK_HEADER = 1,
    BLOCK_SNAPSHOT = 2,
    BLOCK_PROCESS = 3,
    BLOCK_EVENTS = 4,
    BLOCK_STATE = 5,
    BLOCK_CLOCKS = 6,
    BLOCK_END = 7,
};

// The clocks at one moment, by which times become those of other clocks.
struct ClockReading {
    int64_t monotonic = 0;
    int64_t boottime = 0;  // CLOCK_BOOTTIME: goes on while the machine sleeps
    int64_t realtime = 0;  // CLOCK_REALTIME: since the epoch
};
static_assert(sizeof(ClockReading) == 24, "file layout");

inline constexpr char RECORDING_MAGIC[12] = "\x89TESU\r\n\x1a\n";
inline constexpr uint16_t RECORDING_MAJOR = 1;
inline constexpr uint16_t RECORDING_MINOR = 0;

// HEADER. Behind it `typeCount` event types of 32 bits: those that were subscribed to.
struct HeaderBlock {
    char magic[12];
    uint32_t size;  // of this struct, as in all that follow
    uint16_t major;
    uint16_t minor;
    uint32_t typeCount;
    ClockReading clocks;  // when the file was begun
    uint32_t pageSize;
    uint32_t processors;  // that are online
    // Text up to the first NUL.
    char bootId[40];       // of this boot: recordings and traces with the same fit together
    char system[64];       // uname: sysname, ...
    char host[64];         // ... nodename, ...
    char release[64];      // ... release, ...
    char version[64];      // ... version, ...
    char machine[64];      // ... and machine
    char recorder[64];     // the program and its version
    char socketName[108];  // in the abstract namespace
    uint32_t reserved;
};
static_assert(offsetof(HeaderBlock, clocks) == 24, "file layout");
static_assert(offsetof(HeaderBlock, bootId) == 56, "file layout");
static_assert(sizeof(HeaderBlock) == 592, "file layout");

// SNAPSHOT: every process that /proc had. PROCESS: some that were read again, to see what name they
// took since their fork, or whether they are still there. Behind it one after the other a 32-bit
// length and as many bytes: a ProcessEntry. A snapshot that is too long for one block is continued
// in SNAPSHOT blocks that follow with nothing between; their times are the same.
struct ProcessesBlock {
    uint32_t size;
    uint32_t isContinued;  // 1: the next block belongs to it
    int64_t begin;         // right before the first was read: what is told of a process after that
    int64_t end;           // may not have been seen; and right after the last
};
static_assert(sizeof(ProcessesBlock) == 24, "file layout");

enum ProcessFlag : uint32_t {
    PROCESS_IS_KERNEL_THREAD = 1,
    PROCESS_IS_ENDING = 2,     // its main thread has ended or is about to
    PROCESS_HAS_FD_COUNT = 4,  // openFds could be read
    PROCESS_HAS_GONE = 8,      // there is none of this pid; all but pid and readTime is 0
};

// Behind it the name, up to the end of the entry: any bytes.
struct ProcessEntry {
    uint32_t size;
    uint32_t flags;  // of ProcessFlag
    int32_t pid;
    int32_t ppid;
    int32_t uid;  // real user id; -1: not known
    int32_t threads;
    int64_t memory[4];  // bytes, by RssMember: file, anonymous, swap, shared
    int64_t openFds;
    int64_t startTime;
    int64_t readTime;
};
static_assert(sizeof(ProcessEntry) == 80, "file layout");

// EVENTS. Behind it one after the other a RecordEntry and its record or notification, byte for byte
// as the service sent it (records/raw_event.h, records/notification.h).
struct EventsBlock {
    uint32_t size;
    uint32_t reserved;
    int64_t received;  // of the first
};
static_assert(sizeof(EventsBlock) == 16, "file layout");

struct RecordEntry {
    uint32_t delay;  // nanoseconds from the first to this one's receipt
    uint32_t length;
};
static_assert(sizeof(RecordEntry) == 8, "file layout");

// Between which records there was no service, or none that told everything. The numbers are those
// of the client library's events.
enum RecordedState : uint32_t {
    STATE_CONNECTED = 2,   // the subscriptions are on their way
    STATE_SUBSCRIBED = 3,  // from now on every event of the accepted types comes
    STATE_REFUSED = 4,     // the service does not send `eventType`
    STATE_WAITING = 5,     // nobody listens on the socket
    STATE_MALFORMED = 6,   // the service sent what is no stream of events
    STATE_LOST = 7,        // the connection is gone; what happens until SUBSCRIBED is missing
};

// STATE. Behind it the reason, as text, where one is known.
struct StateBlock {
    uint32_t size;
    uint32_t state;  // RecordedState
    int64_t time;
    uint32_t eventType;
    uint32_t reserved;
};
static_assert(sizeof(StateBlock) == 24, "file layout");

// CLOCKS: now and then, because clocks are set and machines sleep.
struct ClocksBlock {
    uint32_t size;
    uint32_t reserved;
    ClockReading clocks;
};
static_assert(sizeof(ClocksBlock) == 32, "file layout");

enum EndReason : uint32_t {
    END_ASKED = 1,      // by time or signal
    END_CONTINUED = 2,  // it goes on in the other half
    END_NO_SPACE = 3,   // the file could not grow
};

// END
struct EndBlock {
    uint32_t size;
    uint32_t reason;  // EndReason
    int64_t time;
    uint64_t records;  // in this file
};
static_assert(sizeof(EndBlock) == 24, "file layout");

}  // namespace Tesu::Bpf
