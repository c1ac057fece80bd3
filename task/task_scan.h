// SPDX-License-Identifier: Apache-2.0
//
// Describes from /proc, or a tree that stands in for it, the processes that already live.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "proc/proc_files.h"
#include "records/raw_event.h"

namespace Tesu::Bpf {

// Hands a task-init record of each process below `procRoot` to `take`. Left out are processes that
// go meanwhile, and zombies: they have no memory, and their end was reported before anybody
// listened, so that they would stay in the table for ever. Returns the number of records.
int ScanTasks(const std::string& procRoot, const KeepScanning& keepScanning,
              const std::function<void(RawTesuTaskInitEvent&)>& take);

// One of them; its id in decimal. Nothing when it has gone or is a zombie. `text` is memory to read
// into.
std::optional<RawTesuTaskInitEvent> ReadTask(const std::string& procRoot, const std::string& pid,
                                             std::string* text);

// What is read again of one process.
struct UpdateProcessExdata {
    int32_t pid = 0;
    int32_t ppid = 0;
    char comm[TESU_COMM_LEN] = {};  // NUL-terminated
};
// 0; -1, logged, when its status file cannot be opened.
int ReadProcessInfo(const std::string& procRoot, int32_t pid, UpdateProcessExdata* out);

}  // namespace Tesu::Bpf
