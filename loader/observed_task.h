// SPDX-License-Identifier: Apache-2.0
//
// A thread of a child process, made to be looked at: it lives, without running, as long as this
// object does, so that what its task_struct points to stays.
#pragma once

#include <android-base/unique_fd.h>
#include <sys/types.h>

#include <string>

#include "loader/kernel_peek.h"
#include "loader/task_probe.h"

namespace Tesu::Bpf {

class ObservedTask {
  public:
    // Forks a process of `threads` threads (2 or more), of which one is named `comm` and looked at.
    // To be called while this process has one thread.
    ObservedTask(const KernelPeek& peek, int threads, const std::string& comm);
    // Ends the child and waits for it.
    ~ObservedTask();
    ObservedTask(const ObservedTask&) = delete;
    ObservedTask& operator=(const ObservedTask&) = delete;

    // Whether the task could be made and looked at.
    bool ok() const { return !observed.bytes.empty(); }
    const TaskSample& sample() const { return observed; }

  private:
    TaskSample observed;
    pid_t child = -1;
    android::base::unique_fd
        lifeline;  // the child ends when it is closed, and so with this process
};

}  // namespace Tesu::Bpf
