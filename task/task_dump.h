// SPDX-License-Identifier: Apache-2.0
//
// The task dump as text: pure functions over copies of the table's records.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "task/tesu_bpf_task_manager.h"

namespace Tesu::Bpf {

// Orders by CompareTesuTask, stable. For any records: where totals wrap the comparison may run in a
// circle, which the standard library's sorts may not be given.
void SortForDump(std::vector<TesuTask>& tasks);

// A task without memory of its own.
bool IsKernelTask(const TesuTask& task);

// The whole file: title, column names, a row per task in the given order. `tableCount` is the
// number of records in the table, `now` seconds since the epoch; sizes are printed in KB.
std::string FormatTaskDump(uint32_t tableCount, uint64_t now, const std::vector<TesuTask>& tasks,
                           bool withOldColumns);

}  // namespace Tesu::Bpf
