// SPDX-License-Identifier: Apache-2.0
//
// The task table with as many processes as a busy machine has: what a size change costs, how long a
// dump takes, and how long it keeps the table from others.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <random>
#include <thread>
#include <vector>

#include "records/raw_event.h"
#include "service/tesu_bpf_service.h"
#include "task/tesu_bpf_task_manager.h"

namespace Tesu::Bpf {
namespace {

// The kernel's highest limit of process ids.
constexpr int32_t PID_LIMIT = 4'194'304;
constexpr int32_t FIRST_PID = 301;
constexpr int64_t OLD_ENOUGH = 10'000'000'000;  // nanoseconds

// Different ids in no order, as they are after days of forks and exits.
std::vector<int32_t> RandomPids(int64_t processes) {
    std::mt19937 random(1);
    std::vector<int32_t> pids;
    while (static_cast<int64_t>(pids.size()) < processes) {
        while (static_cast<int64_t>(pids.size()) < processes) {
            pids.push_back(FIRST_PID + static_cast<int32_t>(random() % (PID_LIMIT - FIRST_PID)));
        }
        std::sort(pids.begin(), pids.end());
        pids.erase(std::unique(pids.begin(), pids.end()), pids.end());
    }
    std::shuffle(pids.begin(), pids.end(), random);
    return pids;
}

// The table, which is the process's one, has these processes from here on.
void SetTable(const std::vector<int32_t>& pids) {
    static std::vector<int32_t> present;
    TesuTaskManager* const table = TesuTaskManager::GetInstance();
    MutexLock lock(TesuTaskManager::tesuTaskManagerLock);
    for (const int32_t pid : present) {
        table->DelTesuTask(pid);
    }
    present = pids;
    for (const int32_t pid : pids) {
        TesuTask task;
        task.pid = pid;
        task.ppid = 1;
        task.threadNum = 1 + pid % 40;
        std::memcpy(task.comm, "some_process", sizeof("some_process"));
        task.rssAnonSize = task.rssAnonOldSize = int64_t{pid} * 7919 % 100'000'000;
        task.rssFileSize = task.rssFileOldSize = int64_t{pid} * 104'729 % 50'000'000;
        table->AddTesuTask(pid, task);
    }
}

// The handler alone, for one process after the other at random. The change is looked at and too
// small to be reported.
void BM_SizeChange(benchmark::State& state) {
    std::vector<int32_t> pids = RandomPids(state.range(0));
    SetTable(pids);
    std::shuffle(pids.begin(), pids.end(), std::mt19937(2));
    // A mutex costs nothing in a process that never had a second thread; the service has.
    std::thread([] {}).join();
    TesuBpfService* const service = TesuBpfService::GetInstance();
    RawRssStatEvent record{};
    record.header.type = RAW_EVENT_RSS_STAT;
    record.header.time = OLD_ENOUGH;
    record.member = RSS_SHMEM;
    record.size = 4096;
    size_t next = 0;
    for (auto _ : state) {
        record.pid = pids[next];
        next = next + 1 == pids.size() ? 0 : next + 1;
        service->handleKmem_RssStat(reinterpret_cast<char*>(&record), sizeof(record));
    }
}
BENCHMARK(BM_SizeChange)->Arg(200)->Arg(10'000)->Arg(100'000);

// Takes the table's lock again and again, as the ring's reader does, and keeps the longest wait.
class LockWaiter {
  public:
    LockWaiter() : thread([this] { run(); }) {}
    ~LockWaiter() { longestMilliseconds(); }

    // Ends the thread.
    double longestMilliseconds() {
        isOver = true;
        if (thread.joinable()) {
            thread.join();
        }
        return std::chrono::duration<double, std::milli>(longest).count();
    }

  private:
    using Clock = std::chrono::steady_clock;

    void run() {
        while (!isOver) {
            const Clock::time_point begin = Clock::now();
            { MutexLock lock(TesuTaskManager::tesuTaskManagerLock); }
            longest = std::max(longest, Clock::now() - begin);
            // The mutex is not fair: without a pause the dump would not get it.
            std::this_thread::sleep_for(std::chrono::microseconds(10));
        }
    }

    std::atomic<bool> isOver{false};
    Clock::duration longest{0};  // the thread's until it has ended
    std::thread thread;
};

// Copy, order, text and file, all of it.
void BM_Dump(benchmark::State& state) {
    SetTable(RandomPids(state.range(0)));
    std::filesystem::create_directories(TesuTaskManager::TESUTASK_DUMP_PATH);
    LockWaiter waiter;
    for (auto _ : state) {
        TesuTaskManager::GetInstance()->DumpTesuTaskInfo();
    }
    state.counters["longest_lock_wait_ms"] = waiter.longestMilliseconds();
}
BENCHMARK(BM_Dump)->Arg(10'000)->Arg(100'000)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
}  // namespace Tesu::Bpf
