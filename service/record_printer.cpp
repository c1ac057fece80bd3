// SPDX-License-Identifier: Apache-2.0
#include "service/record_printer.h"

#include "records/raw_event.h"
#include "records/read_prefix.h"
#include "util/log.h"

namespace Tesu::Bpf {

namespace {

// The characters of a task name, for printing with %.*s.
constexpr int COMM_WIDTH = TESU_COMM_LEN;

}  // namespace

void TestHandleEvent(char* data, long long size) {
    const auto header = ReadPrefix<RawEventHeader>(data, size);
    const auto time = static_cast<long long>(header.time);
    switch (header.type) {
        case RAW_EVENT_TASK_INIT: {
            const auto event = ReadPrefix<RawTesuTaskInitEvent>(data, size);
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
            const auto event = ReadPrefix<RawRssStatEvent>(data, size);
            TESU_LOGD(TESU_LOG_UTILS,
                      "[TESUBPFDEBUG] [TestHandleEvent] RawRssStatEvent eventID: (%u), "
                      "time(%lld), pid: (%d), member: (%d), size: (%lld)",
                      header.type, time, event.pid, event.member,
                      static_cast<long long>(event.size));
            break;
        }
        case RAW_EVENT_TASK_CREATE: {
            const auto event = ReadPrefix<RawTaskCreateEvent>(data, size);
            TESU_LOGD(TESU_LOG_UTILS,
                      "[TESUBPFDEBUG] [TestHandleEvent] RawTaskCreateEvent eventID: (%u), "
                      "time(%lld), pid: (%d), ppid: (%d), uid: (%d), taskType: (%d), comm: (%.*s)",
                      header.type, time, event.pid, event.ppid, event.uid, event.taskType,
                      COMM_WIDTH, event.comm);
            break;
        }
        case RAW_EVENT_TASK_EXIT: {
            const auto event = ReadPrefix<RawTaskExitEvent>(data, size);
            TESU_LOGD(TESU_LOG_UTILS,
                      "[TESUBPFDEBUG] [TestHandleEvent] RawTaskExitEvent eventID: (%u), "
                      "time(%lld), pid: (%d), taskType: (%d), comm: (%.*s)",
                      header.type, time, event.pid, event.taskType, COMM_WIDTH, event.comm);
            break;
        }
        case RAW_EVENT_DMABUF_SIZE: {
            const auto event = ReadPrefix<RawDmabufAllocEvent>(data, size);
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
