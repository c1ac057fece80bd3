// SPDX-License-Identifier: Apache-2.0
//
// What one record costs on its way from the ring buffer's callback into its subscribers' queues,
// and from a queue into a write buffer.
#include <benchmark/benchmark.h>

#include <cstring>
#include <string>
#include <vector>

#include "records/raw_event.h"
#include "service/record_batch.h"
#include "service/tesu_bpf_service.h"

namespace Tesu::Bpf {
namespace {

constexpr int FIRST_CLIENT = 1000;

RawFdUpdateEvent Record() {
    RawFdUpdateEvent record{};
    record.header.type = RAW_EVENT_FD_UPDATE;
    return record;
}

// The dispatch of a record of a type without a handler, by number of subscribed clients. Queues are
// emptied as the socket loop would, so that memory stays bounded.
void BM_Dispatch(benchmark::State& state) {
    TesuBpfService::GetInstance();
    EventManager* manager = EventManager::GetInstance();
    EventManager::ClientQueues queues;
    manager->setClientQueues(&queues);
    const int clients = static_cast<int>(state.range(0));
    for (int client = FIRST_CLIENT; client < FIRST_CLIENT + clients; ++client) {
        manager->addClient(client);
        manager->AddObserverEvent(client, RAW_EVENT_FD_UPDATE);
    }
    std::vector<char> storage(IPC_BUFFER_SIZE);
    RawFdUpdateEvent record = Record();
    unsigned sinceDrained = 0;
    const RecordBatch batch;
    for (auto _ : state) {
        TesuBpfService::handleBpfRingBuffEvent(nullptr, &record, sizeof(record));
        if (++sinceDrained == 400) {
            sinceDrained = 0;
            for (int client = FIRST_CLIENT; client < FIRST_CLIENT + clients; ++client) {
                BufferState buffer{.capacity = IPC_BUFFER_SIZE, .data = storage.data()};
                manager->fillWriteBuffer(client, &buffer);
            }
        }
    }
    state.SetItemsProcessed(state.iterations());
    manager->setClientQueues(nullptr);
    for (int client = FIRST_CLIENT; client < FIRST_CLIENT + clients; ++client) {
        manager->EraseObserver(client);
    }
}
BENCHMARK(BM_Dispatch)->Arg(0)->Arg(1)->Arg(4);

void BM_QueueToWriteBuffer(benchmark::State& state) {
    IpcPackageManager queue;
    std::vector<char> storage(IPC_BUFFER_SIZE);
    const RawFdUpdateEvent record = Record();
    for (auto _ : state) {
        queue.buildAndAppendSecondIpcPackage(
            IPC_PACKAGE_EVENT, reinterpret_cast<const char*>(&record), sizeof(record));
        BufferState buffer{.capacity = IPC_BUFFER_SIZE, .data = storage.data()};
        benchmark::DoNotOptimize(queue.fillNextIpcPackageToBuffer(&buffer));
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_QueueToWriteBuffer);

}  // namespace
}  // namespace Tesu::Bpf
