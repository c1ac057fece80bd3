// SPDX-License-Identifier: Apache-2.0
//
// Counts of records and polls for each of the last 1800 seconds, and their CSV file.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <string>

#include "util/export.h"
#include "util/mutex.h"
#include "util/time_util.h"

namespace Tesu::Bpf {

// Kinds of counters: 0 to 6 records of that type, 7 successful polls of either ring buffer.
inline constexpr uint32_t STATE_KIND_COUNT = 8;
// Seconds that are kept.
inline constexpr uint32_t STATE_SLOT_COUNT = 1800;

// Counters of one second.
using StateRow = std::array<int32_t, STATE_KIND_COUNT>;

// Any thread may call anything. The singleton is made on first use and never destroyed.
//
// Seconds have running numbers, of which the slots hold the last 1800. A count goes into the head's
// slot without a lock; a new second is entered under one.
class TESU_API TesuBpfDataState {
  public:
    // Seconds since the epoch.
    using Clock = unsigned long long (*)();

    explicit TesuBpfDataState(Clock clock = GetSystemSecondsTime);
    TesuBpfDataState(const TesuBpfDataState&) = delete;
    TesuBpfDataState& operator=(const TesuBpfDataState&) = delete;

    static TesuBpfDataState* GetInstance();

    // Adds to a counter of this second. A kind outside 0 to 7 is ignored.
    void RecordEvent(int kind, int count);
    // Replaces the CSV file: column names, then a row per second, newest first. A file that cannot
    // be created is logged. Not from a signal handler (see service/dump_requests.h).
    void DumpState();

    static const std::string TESUTASK_DUMP_PATH;
    static const std::string TESUTASK_DUMP_TEMPLATE;

  private:
    using Slot = std::array<std::atomic<int32_t>, STATE_KIND_COUNT>;

    void enterSecond();

    static Mutex creationLock;
    static std::atomic<TesuBpfDataState*> instance;

    // Written under rollLock and read without, so that clang cannot check it: slots of a second
    // first, then headIndex, then lastSecond.
    std::atomic<int64_t> lastSecond;             // second of the head
    std::atomic<uint32_t> headIndex{0};          // running number of the newest second
    std::atomic<uint32_t> tailIndex{0};          // running number of the oldest second kept
    std::array<Slot, STATE_SLOT_COUNT> slots{};  // running number n lies in slot n % 1800
    Mutex rollLock;
    const Clock clock;
};

// The dump of signal 50, for ordinary threads.
TESU_API void DumpState(int signal);

}  // namespace Tesu::Bpf
