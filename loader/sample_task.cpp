// SPDX-License-Identifier: Apache-2.0
#include "loader/sample_task.h"

#include <android-base/file.h>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <thread>

#include "proc/proc_text.h"

namespace Tesu::Bpf {

namespace {

using android::base::unique_fd;

// What the child reports through its pipe.
struct Facts {
    KernelMemoryRequest request;
    uint32_t flags;
    int32_t threads;
};

// From /proc, of the calling thread: task_struct.flags, and the threads of its process.
void ReadOwnStat(Facts* facts) {
    std::string text;
    if (!android::base::ReadFileToString("/proc/thread-self/stat", &text)) {
        return;
    }
    if (const auto stat = ParseProcStat(text)) {
        facts->flags = stat->flags;
        facts->threads = stat->threadNum;
    }
}

void WaitForEnd(int lifeline) {
    char byte = 0;
    while (read(lifeline, &byte, sizeof(byte)) == -1 && errno == EINTR) {
    }
}

// The child's whole life. The sample is started last, when all the other threads live.
[[noreturn]] void LiveAsChild(const KernelMemory& memory, int threads, const std::string& comm,
                              int factsPipe, int lifeline) {
    for (int i = 2; i < threads; ++i) {
        std::thread([lifeline] { WaitForEnd(lifeline); }).detach();
    }
    std::thread([&] {
        prctl(PR_SET_NAME, comm.c_str());
        Facts facts = {};
        // Using a privilege for the first time sets a flag: it must be set before /proc is read.
        memory.run(&facts.request);
        facts.request = {};
        facts.request.bytes = KERNEL_MEMORY_BYTES;
        ReadOwnStat(&facts);
        if (!memory.run(&facts.request)) {
            facts.request.bytes = 0;
        }
        android::base::WriteFully(factsPipe, &facts, sizeof(facts));
        WaitForEnd(lifeline);
    }).detach();
    WaitForEnd(lifeline);
    _exit(EXIT_SUCCESS);
}

bool MakePipe(unique_fd* readEnd, unique_fd* writeEnd) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        return false;
    }
    readEnd->reset(ends[0]);
    writeEnd->reset(ends[1]);
    return true;
}

}  // namespace

SampleTask::SampleTask(const KernelMemory& memory, int threads, const std::string& comm) {
    unique_fd factsRead;
    unique_fd factsWrite;
    unique_fd lifelineRead;
    KernelMemoryRequest self = {};  // for the ids alone
    if (!MakePipe(&factsRead, &factsWrite) || !MakePipe(&lifelineRead, &lifeline) ||
        !memory.run(&self)) {
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
    if (child == -1 || !android::base::ReadFully(factsRead.get(), &facts, sizeof(facts))) {
        return;
    }
    task.bytes = memory.bytes(facts.request);
    task.pid = facts.request.pid;
    task.tid = facts.request.tid;
    task.parentPid = self.pid;
    task.flags = facts.flags;
    task.threads = facts.threads;
    task.comm = comm;
}

SampleTask::~SampleTask() {
    if (child > 0) {
        kill(child, SIGKILL);
    }
    while (child > 0 && waitpid(child, nullptr, 0) == -1 && errno == EINTR) {
    }
}

}  // namespace Tesu::Bpf
