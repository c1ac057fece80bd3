// SPDX-License-Identifier: Apache-2.0
//
// Keeps the task table current from the kernel's records, and emits notifications of what changed.
#pragma once

#include <cstdint>
#include <functional>
#include <set>
#include <string>

#include "records/raw_event.h"
#include "task/task_scan.h"
#include "task/tesu_bpf_task_manager.h"

namespace Tesu::Bpf {

// Any thread, several at a time: a handler holds the table's lock over its whole update of a
// record. A notification is built under that lock and emitted after it.
class TaskEventHandlers {
  public:
    // Takes a notification (records/notification.h); valid during the call.
    using Emit = std::function<void(const void* notification, uint32_t size)>;
    // Reads name and parent of a process again; 0 on success.
    using ReadProcess = std::function<int(int32_t pid, UpdateProcessExdata* out)>;

    // Borrowed: the table, and the names of tasks whose name and parent are read again on memory
    // events.
    TaskEventHandlers(TesuTaskManager* table, const std::set<std::string>* refreshNames, Emit emit,
                      ReadProcess readProcess);

    void onTaskInit(const RawTesuTaskInitEvent& event);
    void onTaskCreate(const RawTaskCreateEvent& event);
    void onTaskExit(const RawTaskExitEvent& event);
    void onRssStat(const RawRssStatEvent& event);

  private:
    void countThread(int32_t pid, int64_t time, int32_t step);
    void addProcess(const RawTaskCreateEvent& event);
    bool isRefreshed(const TesuTask& task) const;
    void refreshIfDue(TesuTask* task) REQUIRES(TesuTaskManager::tesuTaskManagerLock);

    TesuTaskManager* const table;
    const std::set<std::string>* const refreshNames;
    const Emit emit;
    const ReadProcess readProcess;
};

}  // namespace Tesu::Bpf
