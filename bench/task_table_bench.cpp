// SPDX-License-Identifier: Apache-2.0
//
// The task table with as many processes as a busy machine has: what a size change costs, and how
// long a dump takes.
#include <benchmark/benchmark.h>

#include <cstring>
#include <filesystem>

#include "records/raw_event.h"
#include "service/tesu_bpf_service.h"
#include "task/tesu_bpf_task_manager.h"

namespace Tesu::Bpf {
namespace {

constexpr int32_t FIRST_PID = 1000;

void FillTable(int32_t processes) {
    MutexLock lock(TesuTaskManager::tesuTaskManagerLock);
    for (int32_t i = 0; i < processes; ++i) {
        TesuTask task;
        task.pid = FIRST_PID + i;
        task.ppid = 1;
        task.threadNum = 1 + i % 40;
        std::memcpy(task.comm, "some_process", sizeof("some_process"));
        task.rssAnonSize = int64_t{i} * 7919 % 100'000'000;
        task.rssFileSize = int64_t{i} * 104'729 % 50'000'000;
        TesuTaskManager::GetInstance()->AddTesuTask(task.pid, task);
    }
}

// The handler alone; the size stays the same, so that nothing is reported.
void BM_SizeChange(benchmark::State& state) {
    const auto processes = static_cast<int32_t>(state.range(0));
    FillTable(processes);
    TesuBpfService* const service = TesuBpfService::GetInstance();
    RawRssStatEvent record{};
    record.header.type = RAW_EVENT_RSS_STAT;
    int32_t next = 0;
    for (auto _ : state) {
        record.pid = FIRST_PID + next;
        next = (next + 7919) % processes;
        service->handleKmem_RssStat(reinterpret_cast<char*>(&record), sizeof(record));
    }
}
BENCHMARK(BM_SizeChange)->Arg(200)->Arg(10000);

// Copy, order, text and file, all of it. The table is the process's one and keeps what is in it.
void BM_Dump(benchmark::State& state) {
    FillTable(static_cast<int32_t>(state.range(0)));
    std::filesystem::create_directories(TesuTaskManager::TESUTASK_DUMP_PATH);
    for (auto _ : state) {
        TesuTaskManager::GetInstance()->DumpTesuTaskInfo();
    }
}
BENCHMARK(BM_Dump)->Arg(10000)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace Tesu::Bpf
