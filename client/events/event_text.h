// SPDX-License-Identifier: Apache-2.0
//
// One line of text per event, for people:
//
//      TIME         EVENT      PID  NAME              DETAILS
//      5210.123456  fork     12345  bash              parent 1200 uid 0
//      5210.126750  exit     12345  crashd            after 3.3 ms
//    ~ 5210.130001  memory     815  mediaserver       +4.0 MiB to 20.0 MiB: ...
//
// TIME is the kernel's monotonic clock in seconds. Notifications carry no time: theirs is the time
// at which they were received, marked with "~".
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <unordered_map>

#include "records/event_table.h"

namespace Tesu::Bpf {

// Used by one thread at a time.
class TextFormatter {
  public:
    // colour: mark the event words with terminal colours.
    explicit TextFormatter(bool colour) : colour(colour) {}

    // The line with the names of the columns.
    static constexpr char HEADER[] =
        "          TIME  EVENT        PID  NAME              DETAILS\n";

    // Appends the event's line, with its newline, to `out`. receivedTime: monotonic nanoseconds.
    void append(const Event& event, int64_t receivedTime, std::string* out);

    // Forgets when processes began. For a gap in the stream: a process number may since have been
    // given to another process.
    void forgetProcesses() { forkTimes.clear(); }

  private:
    std::string lifetime(const RawTaskExitEvent& event);

    // Exits may not be watched, so the table has a limit.
    static constexpr size_t MAX_FORK_TIMES = 65536;

    bool colour;
    // Fork time in monotonic nanoseconds of each process whose fork was seen and exit was not.
    std::unordered_map<int32_t, int64_t> forkTimes;
};

}  // namespace Tesu::Bpf
