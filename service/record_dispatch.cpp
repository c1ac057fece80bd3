// SPDX-License-Identifier: Apache-2.0
//
// What happens to a record: it is counted, forwarded to the clients that want it, and handled.
#include "service/record_dispatch.h"

#include "diag/tesu_bpf_state.h"
#include "service/raw_event.h"
#include "service/read_raw_event.h"
#include "service/tesu_bpf_service.h"
#include "util/log.h"

namespace Tesu::Bpf {

namespace {

// Of a record too short for a type word; above every type there is.
constexpr uint32_t NO_TYPE = UINT32_MAX;

// The characters of a task name, for printing with %.*s.
constexpr int COMM_WIDTH = TESU_COMM_LEN;

}  // namespace

int TesuBpfService::handleBpfRingBuffEvent(void* /*ctx*/, void* data, unsigned size) {
    const uint32_t type = size < sizeof(type) ? NO_TYPE : ReadRawEvent<uint32_t>(data, size);
    TesuBpfDataState::GetInstance()->RecordEvent(static_cast<int>(type), 1);
    if (type >= RAW_EVENT_TYPE_COUNT) {
        TESU_LOGE(TESU_LOG_SERVICE, "[TesuBpfService] handleEvent ERROR!!! Type: %u", type);
        return -1;
    }
    char* record = static_cast<char*>(data);
    EventManager::GetInstance()->AppendEvent(record, size);
    const auto& handlers = GetInstance()->eventHandlers;
    const auto handler = handlers.find(static_cast<int32_t>(type));
    return handler == handlers.end() ? 0 : handler->second(record, size);
}

void TestHandleEvent(char* data, long long size) {
    const auto header = ReadRawEvent<RawEventHeader>(data, size);
    const auto time = static_cast<long long>(header.time);
    switch (header.type) {
        case RAW_EVENT_TASK_INIT: {
            const auto event = ReadRawEvent<RawTesuTaskInitEvent>(data, size);
            TESU_LOGD(TESU_LOG_UTILS,
                      "[TESUBPFDEBUG] [TestHandleEvent] RawTesuTaskInitEvent eventID: (%u), "
                      "time(%lld), pid: (%d), ppid: (%d), threadNum: (%d), comm: (%.*s), "
                      "rssFileSize: (%lld), rssAnonSize: (%lld), rssShmemSize: (%lld), "
                      "rssSwapSize: (%lld)",
                      header.type, time, event.pid, event.ppid, event.threadNum, COMM_WIDTH,
                      event.comm, static_cast<long long>(event.rssFileSize),
                      static_cast<long long>(event.rssAnonSize),
                      static_cast<long long>(event.rssShmemSize),
                      static_cast<long long>(event.rssSwapSize));
            break;
        }
        case RAW_EVENT_RSS_STAT: {
            const auto event = ReadRawEvent<RawRssStatEvent>(data, size);
            TESU_LOGD(TESU_LOG_UTILS,
                      "[TESUBPFDEBUG] [TestHandleEvent] RawRssStatEvent eventID: (%u), "
                      "time(%lld), pid: (%d), member: (%d), size: (%lld)",
                      header.type, time, event.pid, event.member,
                      static_cast<long long>(event.size));
            break;
        }
        case RAW_EVENT_TASK_CREATE: {
            const auto event = ReadRawEvent<RawTaskCreateEvent>(data, size);
            TESU_LOGD(TESU_LOG_UTILS,
                      "[TESUBPFDEBUG] [TestHandleEvent] RawTaskCreateEvent eventID: (%u), "
                      "time(%lld), pid: (%d), ppid: (%d), uid: (%d), taskType: (%d), comm: (%.*s)",
                      header.type, time, event.pid, event.ppid, event.uid, event.taskType,
                      COMM_WIDTH, event.comm);
            break;
        }
        case RAW_EVENT_TASK_EXIT: {
            const auto event = ReadRawEvent<RawTaskExitEvent>(data, size);
            TESU_LOGD(TESU_LOG_UTILS,
                      "[TESUBPFDEBUG] [TestHandleEvent] RawTaskExitEvent eventID: (%u), "
                      "time(%lld), pid: (%d), taskType: (%d), comm: (%.*s)",
                      header.type, time, event.pid, event.taskType, COMM_WIDTH, event.comm);
            break;
        }
        case RAW_EVENT_DMABUF_SIZE: {
            const auto event = ReadRawEvent<RawDmabufAllocEvent>(data, size);
            TESU_LOGD(TESU_LOG_UTILS,
                      "[TESUBPFDEBUG] [TestHandleEvent] Dmabuf allocate eventID: (%u), "
                      "time(%lld), pid: (%d),size: (%lld)",
                      header.type, time, event.pid, static_cast<long long>(event.size));
            break;
        }
        default:
            TESU_LOGD(TESU_LOG_UTILS,
                      "[TESUBPFDEBUG] [TestHandleEvent] handleEvent ERROR!!! Type: %u",
                      header.type);
            break;
    }
}

}  // namespace Tesu::Bpf
