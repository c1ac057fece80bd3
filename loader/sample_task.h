// SPDX-License-Identifier: Apache-2.0
//
// A thread of a child process that is made as a sample: it lives, without running, as long as this
// object does, so that what its task_struct points to stays.
#pragma once

#include <android-base/unique_fd.h>
#include <sys/types.h>

#include <string>

#include "loader/kernel_memory.h"
#include "loader/task_offsets.h"

namespace Tesu::Bpf {

class SampleTask {
  public:
    // Forks a process of `threads` threads (2 or more; a runtime may add its own), of which one is
    // named `comm` and is the sample. To be called while this process has one thread.
    SampleTask(const KernelMemory& memory, int threads, const std::string& comm);
    // Ends the child and waits for it.
    ~SampleTask();
    SampleTask(const SampleTask&) = delete;
    SampleTask& operator=(const SampleTask&) = delete;

    // Whether the task could be made and read.
    bool ok() const { return !task.bytes.empty(); }
    const TaskSample& sample() const { return task; }

  private:
    TaskSample task;
    pid_t child = -1;
    android::base::unique_fd
        lifeline;  // the child ends when it is closed, and so with this process
};

}  // namespace Tesu::Bpf
