// SPDX-License-Identifier: Apache-2.0
#include "service/dump_requests.h"

#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <system_error>
#include <thread>
#include <utility>

#include "diag/tesu_bpf_state.h"
#include "records/contract.h"
#include "task/tesu_bpf_task_manager.h"
#include "util/log.h"
#include "util/mutex.h"

namespace Tesu::Bpf {

namespace {

constexpr const char* THREAD_NAME = "BpfServiceDump";
constexpr int FIRST_SIGNAL = DUMP_SIGNAL_STATE;
// By signal number from FIRST_SIGNAL on.
constexpr std::array<void (*)(int), 5> DUMPS = {
    [](int signal) { DumpState(signal); }, HandleDumpSignal, HandleNonKernelDumpSignal,
    HandleDumpSignalNormal, HandleNonKernelDumpSignalNormal};

// What a signal handler touches; nothing of it is ever destroyed or closed.
//
// A request is the ticket drawn for it, which tells its place among the others; 0 is none, and
// tickets are odd so that none is ever 0.
std::atomic<uint32_t> nextTicket{1};
std::array<std::atomic<uint32_t>, DUMPS.size()> requests{};
std::atomic<int> wakeFd{-1};
static_assert(std::atomic<uint32_t>::is_always_lock_free && std::atomic<int>::is_always_lock_free);

// Held during a dump. On the heap, so that the thread may still come for it at exit.
Mutex& dumpLock = *new Mutex;
bool processEnds GUARDED_BY(dumpLock) = false;

// In signal context.
void NoteRequest(int signal) {
    const int savedErrno = errno;
    requests[static_cast<size_t>(signal - FIRST_SIGNAL)].store(
        nextTicket.fetch_add(2, std::memory_order_relaxed), std::memory_order_release);
    const uint64_t one = 1;
    // Fails only where there is no thread to wake; the note is then kept for it.
    [[maybe_unused]] const ssize_t written = write(wakeFd.load(), &one, sizeof(one));
    errno = savedErrno;
}

// Does what was asked for so far, the oldest first.
void ServeRequests() {
    std::array<std::pair<uint32_t, size_t>, DUMPS.size()> due;
    for (size_t kind = 0; kind < DUMPS.size(); ++kind) {
        due[kind] = {requests[kind].exchange(0, std::memory_order_acq_rel), kind};
    }
    std::sort(due.begin(), due.end());
    for (const auto& [ticket, kind] : due) {
        if (ticket == 0) {
            continue;
        }
        MutexLock lock(dumpLock);
        if (processEnds) {
            return;
        }
        try {
            DUMPS[kind](FIRST_SIGNAL + static_cast<int>(kind));
        } catch (const std::bad_alloc&) {
            TESU_LOGE(TESU_LOG_SERVICE, "[%s] no memory for a dump", THREAD_NAME);
        }
    }
}

void RunDumpThread() {
    prctl(PR_SET_NAME, THREAD_NAME);
    uint64_t count = 0;
    while (read(wakeFd.load(), &count, sizeof(count)) == sizeof(count)) {
        ServeRequests();
    }
    TESU_LOGE(TESU_LOG_SERVICE, "[%s] no more dumps: %s", THREAD_NAME, strerror(errno));
}

// The thread is not joined, so what dumps use must not go from under one.
void EndDumps() {
    MutexLock lock(dumpLock);
    processEnds = true;
}

// False when there is no thread yet; the next call tries again.
bool CreateDumpThread() {
    if (wakeFd.load() == -1) {
        wakeFd = eventfd(0, EFD_CLOEXEC);
    }
    if (wakeFd.load() == -1) {
        TESU_LOGE(TESU_LOG_SERVICE, "[InstallDumpSignalHandlers] eventfd failed: %s",
                  strerror(errno));
        return false;
    }
    // A thread inherits the mask, so none of its moments is open to a signal.
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    bool created = true;
    try {
        std::thread(RunDumpThread).detach();
        std::atexit(EndDumps);
    } catch (const std::system_error& error) {
        TESU_LOGE(TESU_LOG_SERVICE, "[InstallDumpSignalHandlers] no thread for dumps: %s",
                  error.what());
        created = false;
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return created;
}

}  // namespace

// The handlers come even when the thread does not: without them the signals end the process.
void InstallDumpSignalHandlers() {
    static Mutex installLock;
    static bool hasThread GUARDED_BY(installLock) = false;
    MutexLock lock(installLock);
    hasThread = hasThread || CreateDumpThread();
    for (size_t kind = 0; kind < DUMPS.size(); ++kind) {
        std::signal(FIRST_SIGNAL + static_cast<int>(kind), NoteRequest);
    }
}

}  // namespace Tesu::Bpf
