// SPDX-License-Identifier: Apache-2.0
#include "loader/sample_task.h"

#include <android-base/file.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <thread>

#include "proc/proc_text.h"

namespace Tesu::Bpf {

namespace {

using android::base::unique_fd;

// What the child reports through its pipe.
struct Facts {
    KernelMemoryRequest self;
    uint32_t flags;
    int32_t threads;
};

// Of the calling thread; without threads where something is not found.
Facts FindFacts(const KernelMemory& memory) {
    Facts facts = {};
    // Using a privilege for the first time sets a flag: that must come before /proc is read.
    const bool isRun = memory.run(&facts.self);
    std::string text;
    android::base::ReadFileToString("/proc/thread-self/stat", &text);
    if (const auto stat = ParseProcStat(text); stat && isRun) {
        facts.flags = stat->flags;
        facts.threads = stat->threadNum;
    }
    return facts;
}

void WaitForEnd(int lifeline) {
    char byte = 0;
    TEMP_FAILURE_RETRY(read(lifeline, &byte, sizeof(byte)));
}

// The child's whole life. The sample is started last, when all the other threads live.
[[noreturn]] void LiveAsChild(const KernelMemory& memory, int threads, const std::string& comm,
                              int factsPipe, int lifeline) {
    for (int i = 2; i < threads; ++i) {
        std::thread([lifeline] { WaitForEnd(lifeline); }).detach();
    }
    std::thread([&] {
        prctl(PR_SET_NAME, comm.c_str());
        const Facts facts = FindFacts(memory);
        android::base::WriteFully(factsPipe, &facts, sizeof(facts));
        WaitForEnd(lifeline);
    }).detach();
    WaitForEnd(lifeline);
    _exit(EXIT_SUCCESS);
}

}  // namespace

SampleTask::SampleTask(const KernelMemory& memory, int threads, const std::string& comm) {
    unique_fd factsRead;
    unique_fd factsWrite;
    unique_fd lifelineRead;
    KernelMemoryRequest self = {};
    if (!Pipe(&factsRead, &factsWrite) || !Pipe(&lifelineRead, &lifeline) || !memory.run(&self)) {
        return;
    }
    child = fork();
    if (child == 0) {
        factsRead.reset();
        lifeline.reset();
        LiveAsChild(memory, threads, comm, factsWrite.get(), lifelineRead.get());
    }
    factsWrite.reset();
    Facts facts = {};
    // A runtime may have added threads of its own, so the kernel's count need not be `threads`;
    // what counts is that it is the one in kernel memory.
    if (child == -1 || !android::base::ReadFully(factsRead.get(), &facts, sizeof(facts)) ||
        facts.threads == 0) {
        return;
    }
    task.bytes = memory.read(facts.self.address, KERNEL_MEMORY_BYTES);
    task.pid = facts.self.pid;
    task.tid = facts.self.tid;
    task.parentPid = self.pid;
    task.flags = facts.flags;
    task.threads = facts.threads;
    task.comm = comm;
}

SampleTask::~SampleTask() {
    if (child > 0) {
        kill(child, SIGKILL);
        TEMP_FAILURE_RETRY(waitpid(child, nullptr, 0));
    }
}

}  // namespace Tesu::Bpf
