// SPDX-License-Identifier: Apache-2.0
//
// How long a recording of a million records takes to be read, and to be played to its end.
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>

#include "client/replay/replay.h"
#include "recording/writer.h"
#include "records/raw_event.h"

namespace Tesu::Bpf {
namespace {

constexpr int64_t RECORDS = 1'000'000;
constexpr int32_t PROCESSES = 400;
constexpr int64_t PAUSE = 1'000'000;  // nanoseconds between two records

// A file of memory updates of processes that live, for as long as the program runs.
class Recording {
  public:
    Recording() {
        HeaderBlock header = DescribeMachine("bench", "");
        const int64_t begin = header.clocks.monotonic;
        auto writer = RecordingWriter::create(path, header, {RAW_EVENT_RSS_STAT});
        std::vector<ProcessSnapshot> processes(PROCESSES);
        for (int32_t pid = 0; pid < PROCESSES; ++pid) {
            processes[static_cast<size_t>(pid)].pid = pid;
        }
        writer->addProcesses(BLOCK_SNAPSHOT, begin, processes);
        for (int64_t i = 0; i < RECORDS; ++i) {
            const int64_t time = begin + i * PAUSE;
            const RawRssStatEvent record{{RAW_EVENT_RSS_STAT, 0, time},
                                         static_cast<int32_t>(i % PROCESSES),
                                         RSS_ANON,
                                         i << 12};
            writer->addEvent(time, &record, sizeof(record));
        }
        writer->end(END_ASKED);
    }
    ~Recording() { unlink(path.c_str()); }

    const std::string path = "/tmp/tesubpf-bench-" + std::to_string(getpid());
};

const std::string& Path() {
    static const Recording RECORDING;
    return RECORDING.path;
}

void BM_ReadAMillion(benchmark::State& state) {
    Path();
    for (auto _ : state) {
        auto reader = RecordingReader::open(Path());
        int64_t records = 0;
        while (const RecordingItem* const item = reader->next()) {
            records += std::holds_alternative<RecordedEvent>(item->what) ? 1 : 0;
        }
        if (records != RECORDS) {
            state.SkipWithError("records are missing");
        }
    }
}
BENCHMARK(BM_ReadAMillion)->Unit(benchmark::kMillisecond);

void BM_ReplayAMillion(benchmark::State& state) {
    Path();
    for (auto _ : state) {
        auto replay = Replay::open(Path());
        replay->goTo(INT64_MAX);
        benchmark::DoNotOptimize(replay->model().view({}).totals);
    }
}
BENCHMARK(BM_ReplayAMillion)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace Tesu::Bpf
