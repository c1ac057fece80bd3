// SPDX-License-Identifier: Apache-2.0
//
// Describes the processes that already live, as records like the kernel's.
#pragma once

#include <functional>
#include <string>

#include "records/raw_event.h"

namespace Tesu::Bpf {

// Hands a task-init record of each process below `procRoot` to `take`, until that answers false.
// Processes that go meanwhile are left out. Returns the number of records.
int ScanTasks(const std::string& procRoot, const std::function<bool(RawTesuTaskInitEvent&)>& take);

}  // namespace Tesu::Bpf
