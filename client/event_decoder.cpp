// SPDX-License-Identifier: Apache-2.0
#include "client/event_decoder.h"

#include <algorithm>

#include "service/read_raw_event.h"

namespace Tesu::Bpf {

Event DecodeEvent(const void* data, uint32_t size) {
    std::optional<uint32_t> type;
    if (size >= sizeof(uint32_t)) {
        type = ReadRawEvent<uint32_t>(data, size);
        switch (*type) {
            case RAW_EVENT_TASK_INIT:
                return ReadRawEvent<RawTesuTaskInitEvent>(data, size);
            case RAW_EVENT_RSS_STAT:
                return ReadRawEvent<RawRssStatEvent>(data, size);
            case RAW_EVENT_TASK_CREATE:
                return ReadRawEvent<RawTaskCreateEvent>(data, size);
            case RAW_EVENT_TASK_EXIT:
                return ReadRawEvent<RawTaskExitEvent>(data, size);
            case RAW_EVENT_DMABUF_SIZE:
                return ReadRawEvent<RawDmabufAllocEvent>(data, size);
            case RAW_EVENT_CGROUP_ATTACH:
                return ReadRawEvent<RawCgroupAttachEvent>(data, size);
            case RAW_EVENT_FD_UPDATE:
                return ReadRawEvent<RawFdUpdateEvent>(data, size);
            case NOTIFICATION_PROCESS_CREATED:
                return ReadRawEvent<ProcessCreatedNotification>(data, size);
            case NOTIFICATION_PROCESS_EXITED:
                return ReadRawEvent<ProcessExitedNotification>(data, size);
            case NOTIFICATION_THREAD_COUNT:
                return ReadRawEvent<ThreadCountNotification>(data, size);
            case NOTIFICATION_MEMORY:
                return ReadRawEvent<MemoryNotification>(data, size);
            default:
                break;
        }
    }
    const size_t shown = std::min<size_t>(size, UnknownEvent::MAX_START);
    return UnknownEvent{type, size, std::string(static_cast<const char*>(data), shown)};
}

}  // namespace Tesu::Bpf
