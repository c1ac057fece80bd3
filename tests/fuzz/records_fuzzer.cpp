// SPDX-License-Identifier: Apache-2.0
//
// Records of any bytes, as they come out of a ring: counted, handled, and sent unchanged to a
// subscriber of everything, before what follows from them. What the table then holds is printed.
#include <set>

#include "ipc/frame.h"
#include "records/event_table.h"
#include "records/read_prefix.h"
#include "service/tesu_bpf_service.h"
#include "task/task_dump.h"
#include "tests/fuzz/fuzz.h"

using namespace Tesu::Bpf;

namespace {

constexpr int CLIENT = 7;

// Leaves the table empty.
void PrintAndClear(const std::set<int32_t>& pids) {
    TesuTaskManager* const table = TesuTaskManager::GetInstance();
    MutexLock lock(TesuTaskManager::tesuTaskManagerLock);
    std::vector<DumpRow> rows;
    for (const int32_t pid : pids) {
        if (const TesuTask* const task = table->GetTesuTask(pid)) {
            rows.push_back({pid, TotalSize(*task), task});
        }
    }
    SortForDump(rows);
    (void)FormatTaskDump(rows.size(), 0, rows, true);
    std::for_each(pids.begin(), pids.end(), [&](int32_t pid) { table->DelTesuTask(pid); });
    Require(table->GetTesuTaskCount() == 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    TesuBpfService::GetInstance();
    EventManager* const events = EventManager::GetInstance();
    EventManager::ClientQueues queues;
    events->setClientQueues(&queues);
    events->addClient(CLIENT);
    for (const EventType& type : EVENT_TYPES) {
        events->AddObserverEvent(CLIENT, static_cast<int>(type.type));
    }
    std::set<int32_t> pids;
    std::vector<char> out(IPC_BUFFER_SIZE);
    ForEachPiece(data, size, [&](char* piece, unsigned length) {
        pids.insert(ReadPrefix<RawTesuTaskInitEvent>(piece, length).pid);
        pids.insert(ReadPrefix<RawTaskCreateEvent>(piece, length).pid);
        const bool isTaken = TesuBpfService::handleBpfRingBuffEvent(nullptr, piece, length) == 0;
        BufferState written{.capacity = IPC_BUFFER_SIZE, .data = out.data()};
        events->fillWriteBuffer(CLIENT, &written);
        FrameBuffer frames{0, static_cast<size_t>(written.length), IPC_BUFFER_SIZE, written.data};
        Package sent;
        char fault[FRAME_FAULT_SIZE];
        const FrameState state = TakePackage(&frames, &sent, fault);
        Require(state == (isTaken ? FRAME_TAKEN : FRAME_INCOMPLETE));
        Require(!isTaken || std::equal(piece, piece + length, sent.body));
    });
    events->removeClient(CLIENT);
    PrintAndClear(pids);
    return 0;
}
