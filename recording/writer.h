// SPDX-License-Identifier: Apache-2.0
//
// Writes a recording:
//
//   create -> add..., flush now and then -> end
//
// Records are gathered into blocks of some 64 KiB, everything else is a block at once; each block
// is one write(2), and a file in which one was not written whole is as long as it was before.
#pragma once

#include <android-base/unique_fd.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "proc/process_snapshot.h"
#include "recording/format.h"
#include "util/result.h"

namespace Tesu::Bpf {

// What is to be told of the machine and the boot, and the clocks. recorder: the program.
HeaderBlock DescribeMachine(const std::string& recorder, const std::string& socketName);

// The clocks as they are now.
ClockReading ReadClocks();

// Used by one thread at a time.
class RecordingWriter {
  public:
    // Makes the file, for its owner alone, and fails when there is one.
    static Result<RecordingWriter> create(const std::string& path, const HeaderBlock& header,
                                          const std::vector<uint32_t>& types);

    // Times are those of receipt and must not run backwards.
    void addEvent(int64_t received, const void* data, uint32_t size);
    void addNews(int64_t time, RecordedState state, uint32_t eventType, std::string_view reason);
    // type: BLOCK_SNAPSHOT for all processes, BLOCK_PROCESS for some, of which those in `gone` were
    // not there any more. begin: right before the first was read.
    void addProcesses(BlockType type, int64_t begin, const std::vector<ProcessSnapshot>& processes,
                      const std::vector<int32_t>& gone = {});
    void addClocks();
    // Writes the records that were gathered.
    void flush();
    // The last block; also where another could not be written.
    void end(EndReason reason);

    // Why a block could not be written, and from then on none but an END; empty: all were.
    const std::string& failure() const { return why; }

    // Bytes of the file, with what is gathered for it.
    uint64_t size() const { return written + events.size(); }

  private:
    bool writeBlock(BlockType type, std::string_view body);
    template <class Struct>
    bool writeStruct(BlockType type, Struct block, std::string_view rest = {});

    std::string path;
    std::string why;
    android::base::unique_fd file;
    uint64_t written = 0;   // bytes
    uint64_t records = 0;   // in the file
    std::string events;     // the body of an EVENTS block; empty: none
    uint64_t gathered = 0;  // records in it
    int64_t received = 0;   // of the first of them
};

}  // namespace Tesu::Bpf
