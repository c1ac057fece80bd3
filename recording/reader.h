// SPDX-License-Identifier: Apache-2.0
//
// Reads a recording, item by item in the order in which things happened:
//
//   auto reader = RecordingReader::open(path);           // fails: no recording
//   while (const RecordingItem* item = reader->next()) {
//       if (const auto* record = std::get_if<RecordedEvent>(&item->what)) {
//           const Event event = DecodeEvent(record->data, record->size);
//           ...
//       }
//   }
//   if (!reader->damage().empty()) ...                   // all that came before it was handed out
//
// Nothing in a file is trusted. A file that was cut or changed gives what stands before that place.
// Needs as much memory as the largest block and the processes of one snapshot.
#pragma once

#include <android-base/unique_fd.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "proc/process_snapshot.h"
#include "recording/format.h"
#include "util/result.h"

namespace Tesu::Bpf {

struct RecordingHeader {
    HeaderBlock block{};
    std::vector<uint32_t> types;  // that were subscribed to
};

// A record or notification, byte for byte as the service sent it.
struct RecordedEvent {
    // May be unaligned; valid until the following call of the reader.
    const char* data = nullptr;
    uint32_t size = 0;
};

// News of the connection to the service.
struct RecordedNews {
    RecordedState state{};
    uint32_t eventType = 0;  // of STATE_REFUSED
    std::string reason{};    // where one is known
};

// All processes of /proc.
struct RecordedSnapshot {
    int64_t begin = 0;  // monotonic nanoseconds, right before the first was read
    int64_t end = 0;    // and right after the last
    std::vector<ProcessSnapshot> processes{};
};

// Processes that were read again.
struct RecordedRefresh {
    std::vector<ProcessSnapshot> processes{};
    std::vector<int32_t> gone{};  // pids of those that were there no more
};

struct RecordingItem {
    // Monotonic nanoseconds: when it was received, or when /proc began to be read. Never negative,
    // and no sum or difference of two overflows. A file's times do not run backwards unless
    // somebody made them.
    int64_t time = 0;
    std::variant<RecordedEvent, RecordedNews, RecordedSnapshot, RecordedRefresh, ClockReading,
                 EndBlock>
        what;
};

// Used by one thread at a time.
class RecordingReader {
  public:
    // Fails when the file cannot be read, does not begin with a whole HEADER, or is of a `major`
    // that is not known here.
    static Result<RecordingReader> open(const std::string& path);

    const RecordingHeader& header() const { return head; }

    // The next item, valid until the following call; null at the end, and from then on.
    const RecordingItem* next();

    // Once next() gave null: where and why the recording stops before its END; empty: it does not.
    const std::string& damage() const { return why; }

    // The end of the items of the block that was read last, from where seek() goes on.
    int64_t position() const { return offset; }
    bool isBetweenBlocks() const { return events.empty(); }
    // To a position that this reader was at.
    void seek(int64_t position);

  private:
    RecordingReader() : body(std::make_unique_for_overwrite<char[]>(MAX_BLOCK_LENGTH)) {}

    bool readBlock(BlockHead* block, std::string_view* content);
    bool takeHeader();
    bool takeBlock(uint32_t type, std::string_view content);
    bool takeProcesses(uint32_t type, std::string_view content);
    bool takeEvent();
    bool stop(const char* reason);

    android::base::unique_fd file;
    RecordingHeader head;
    std::unique_ptr<char[]> body;  // of the block read last, MAX_BLOCK_LENGTH
    int64_t blockStart = 0;        // of that block, in the file
    int64_t offset = 0;            // of the block behind it
    std::string_view events;       // of an EVENTS block, not yet handed out; in `body`
    int64_t received = 0;          // of the first of them
    RecordedSnapshot snapshot;     // of a SNAPSHOT that is continued
    bool isContinued = false;
    RecordingItem item;
    bool hasEnded = false;
    std::string why;
};

}  // namespace Tesu::Bpf
