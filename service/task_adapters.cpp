// SPDX-License-Identifier: Apache-2.0
//
// The service's members of the task subsystem: the table's logic is in task/.
#include <algorithm>
#include <climits>

#include "diag/tesu_bpf_state.h"
#include "records/read_prefix.h"
#include "service/tesu_bpf_service.h"
#include "task/map_seeding.h"

namespace Tesu::Bpf {

int TesuBpfService::handleTesuTaskInitEvent(char* data, int64_t size) {
    taskHandlers.onTaskInit(ReadPrefix<RawTesuTaskInitEvent>(data, size));
    return 0;
}

int TesuBpfService::handleSched_SchedProcessFork(char* data, int64_t size) {
    taskHandlers.onTaskCreate(ReadPrefix<RawTaskCreateEvent>(data, size));
    return 0;
}

int TesuBpfService::handleSched_SchedProcessExit(char* data, int64_t size) {
    taskHandlers.onTaskExit(ReadPrefix<RawTaskExitEvent>(data, size));
    return 0;
}

int TesuBpfService::handleKmem_RssStat(char* data, int64_t size) {
    taskHandlers.onRssStat(ReadPrefix<RawRssStatEvent>(data, size));
    return 0;
}

int TesuBpfService::handleBpfPassthrough(char* data, int64_t size) {
    const int64_t length = std::clamp<int64_t>(size, 0, UINT_MAX);
    EventManager::GetInstance()->AppendEvent(data, static_cast<unsigned>(length));
    return 0;
}

int TesuBpfService::getProcessInfo(int32_t pid, UpdateProcessExdata* out) {
    return ReadProcessInfo(PROC_FS_PATH, pid, out);
}

// The records go the way of the kernel's: counted, forwarded, handled. The sum is counted once more
// at the end, so that the scan shows twice in the counters.
int TesuBpfService::initTaskInfo() {
    const auto isWanted = [this] { return !stopped; };
    const int count = ScanTasks(PROC_FS_PATH, isWanted, [](RawTesuTaskInitEvent& record) {
        handleBpfRingBuffEvent(nullptr, &record, sizeof(record));
    });
    TesuBpfDataState::GetInstance()->RecordEvent(RAW_EVENT_TASK_INIT, count);
    return 0;
}

int TesuBpfService::initFdBpfProg() {
    return SeedOpenFdMap(PROC_FS_PATH, [this] { return !stopped; });
}

int TesuBpfService::initDmabufBpfProg() {
    return SeedDmabufMaps(PROC_FS_PATH, [this] { return !stopped; });
}

}  // namespace Tesu::Bpf
