// SPDX-License-Identifier: Apache-2.0
#include "service/record_printer.h"

#include "records/raw_event.h"
#include "records/read_prefix.h"
#include "util/log.h"
#include "util/string_util.h"

namespace Tesu::Bpf {

namespace {

// The characters of a task name, for printing with %.*s.
constexpr int COMM_WIDTH = TESU_COMM_LEN;

}  // namespace

void TestHandleEvent(char* data, long long size) {
    const auto header = ReadPrefix<RawEventHeader>(data, size);
    const auto time = static_cast<long long>(header.time);
    const auto print = [&](const char* record, const std::string& fields) {
        TESU_LOGD(TESU_LOG_UTILS,
                  "[TESUBPFDEBUG] [TestHandleEvent] %s eventID: (%u), time(%lld), %s", record,
                  header.type, time, fields.c_str());
    };
    switch (header.type) {
        case RAW_EVENT_TASK_INIT: {
            const auto event = ReadPrefix<RawTesuTaskInitEvent>(data, size);
            return print(
                "RawTesuTaskInitEvent",
                StringPrintf("pid: (%d), ppid: (%d), threadNum: (%d), comm: (%.*s), "
                             "rssFileSize: (%lld), rssAnonSize: (%lld), rssShmemSize: (%lld), "
                             "rssSwapSize: (%lld)",
                             event.pid, event.ppid, event.threadNum, COMM_WIDTH, event.comm,
                             static_cast<long long>(event.rssFileSize),
                             static_cast<long long>(event.rssAnonSize),
                             static_cast<long long>(event.rssShmemSize),
                             static_cast<long long>(event.rssSwapSize)));
        }
        case RAW_EVENT_RSS_STAT: {
            const auto event = ReadPrefix<RawRssStatEvent>(data, size);
            return print("RawRssStatEvent",
                         StringPrintf("pid: (%d), member: (%d), size: (%lld)", event.pid,
                                      event.member, static_cast<long long>(event.size)));
        }
        case RAW_EVENT_TASK_CREATE: {
            const auto event = ReadPrefix<RawTaskCreateEvent>(data, size);
            return print(
                "RawTaskCreateEvent",
                StringPrintf("pid: (%d), ppid: (%d), uid: (%d), taskType: (%d), comm: (%.*s)",
                             event.pid, event.ppid, event.uid, event.taskType, COMM_WIDTH,
                             event.comm));
        }
        case RAW_EVENT_TASK_EXIT: {
            const auto event = ReadPrefix<RawTaskExitEvent>(data, size);
            return print("RawTaskExitEvent",
                         StringPrintf("pid: (%d), taskType: (%d), comm: (%.*s)", event.pid,
                                      event.taskType, COMM_WIDTH, event.comm));
        }
        case RAW_EVENT_DMABUF_SIZE: {
            const auto event = ReadPrefix<RawDmabufAllocEvent>(data, size);
            return print("Dmabuf allocate", StringPrintf("pid: (%d),size: (%lld)", event.pid,
                                                         static_cast<long long>(event.size)));
        }
        default:
            TESU_LOGD(TESU_LOG_UTILS,
                      "[TESUBPFDEBUG] [TestHandleEvent] handleEvent ERROR!!! Type: %u",
                      header.type);
            break;
    }
}

}  // namespace Tesu::Bpf
