// SPDX-License-Identifier: Apache-2.0
//
// What the service knows of one process.
#pragma once

#include <cstddef>
#include <cstdint>

#include "records/raw_event.h"
#include "util/export.h"

namespace Tesu::Bpf {

// One process. Sizes are bytes; an "old" figure is the one last reported to clients.
struct TesuTask {
    int32_t pid = 0;
    int32_t ppid = 0;
    int32_t uid = 0;
    int32_t threadNum = 0;
    int32_t oldThreadNum = 0;
    char comm[TESU_COMM_LEN] = {};  // a name of 16 characters carries no NUL
    uint32_t mmId = 0;
    // Resident memory, in the order of the kernel's rss members 0 to 3.
    int64_t rssFileSize = 0;
    int64_t rssAnonSize = 0;
    int64_t rssSwapSize = 0;
    int64_t rssShmemSize = 0;
    int64_t rssFileOldSize = 0;
    int64_t rssAnonOldSize = 0;
    int64_t rssSwapOldSize = 0;
    int64_t rssShmemOldSize = 0;
    int64_t initTimeStamp = 0;    // seconds since the epoch at which the process began
    int64_t lastRefreshTime = 0;  // seconds; when name and parent were last read again, 0: never
    int64_t createEventTime = 0;  // nanoseconds; time of the record that made this one
};
static_assert(offsetof(TesuTask, rssShmemSize) - offsetof(TesuTask, rssFileSize) == 24,
              "the four sizes lie in a row");

// What tells the record of a process from those of others that had its id or will have it.
struct TaskIdentity {
    int32_t pid;
    int64_t createEventTime;
    int64_t initTimeStamp;
};

// Of the four sizes. Wraps, so that no input is undefined.
inline uint64_t TotalSize(const TesuTask& task) {
    return static_cast<uint64_t>(task.rssFileSize) + static_cast<uint64_t>(task.rssAnonSize) +
           static_cast<uint64_t>(task.rssSwapSize) + static_cast<uint64_t>(task.rssShmemSize);
}

// Whether total `a` comes before total `b`: the largest first. Their difference wraps too, and
// where it does this is no strict weak ordering: see SortForDump in task/task_dump.h.
inline bool CompareTotals(uint64_t a, uint64_t b) {
    return static_cast<int64_t>(a - b) > 0;
}

// The same for the totals of two records.
TESU_API bool CompareTesuTask(const TesuTask& a, const TesuTask& b);

}  // namespace Tesu::Bpf
