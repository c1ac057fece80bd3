// SPDX-License-Identifier: Apache-2.0
//
// The task dump as text: pure functions over a copy of the table's records.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "task/task_store.h"
#include "task/tesu_task.h"

namespace Tesu::Bpf {

// A record in the copy and what the dump orders by, at hand: to look at the record for each
// comparison would cost a cache miss.
struct DumpRow {
    int32_t pid;  // the id that the record is stored under
    uint64_t total;
    const TesuTask* task;
};

// The copy's records by ascending id.
std::vector<DumpRow> OrderByPid(const std::vector<TaskStore::Chunk>& copy);

// Orders by CompareTotals, stable. For any records: where totals wrap the comparison may run in a
// circle, which the standard library's sorts may not be given.
void SortForDump(std::vector<DumpRow>& rows);

// A task without memory of its own.
bool IsKernelTask(const TesuTask& task);

// The whole file: title, column names, a row per task in the given order. `tableCount` is the
// number of records in the table, `now` seconds since the epoch; sizes are printed in KB.
std::string FormatTaskDump(size_t tableCount, uint64_t now, const std::vector<DumpRow>& rows,
                           bool withOldColumns);

}  // namespace Tesu::Bpf
