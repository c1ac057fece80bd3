// SPDX-License-Identifier: Apache-2.0
#include "client/event_decoder.h"

#include <algorithm>

#include "records/read_prefix.h"

namespace Tesu::Bpf {

Event DecodeEvent(const void* data, uint32_t size) {
    std::optional<uint32_t> type;
    if (size >= sizeof(uint32_t)) {
        type = ReadPrefix<uint32_t>(data, size);
        switch (*type) {
            case RAW_EVENT_TASK_INIT:
                return ReadPrefix<RawTesuTaskInitEvent>(data, size);
            case RAW_EVENT_RSS_STAT:
                return ReadPrefix<RawRssStatEvent>(data, size);
            case RAW_EVENT_TASK_CREATE:
                return ReadPrefix<RawTaskCreateEvent>(data, size);
            case RAW_EVENT_TASK_EXIT:
                return ReadPrefix<RawTaskExitEvent>(data, size);
            case RAW_EVENT_DMABUF_SIZE:
                return ReadPrefix<RawDmabufAllocEvent>(data, size);
            case RAW_EVENT_CGROUP_ATTACH:
                return ReadPrefix<RawCgroupAttachEvent>(data, size);
            case RAW_EVENT_FD_UPDATE:
                return ReadPrefix<RawFdUpdateEvent>(data, size);
            case NOTIFICATION_PROCESS_CREATED:
                return ReadPrefix<ProcessCreatedNotification>(data, size);
            case NOTIFICATION_PROCESS_EXITED:
                return ReadPrefix<ProcessExitedNotification>(data, size);
            case NOTIFICATION_THREAD_COUNT:
                return ReadPrefix<ThreadCountNotification>(data, size);
            case NOTIFICATION_MEMORY:
                return ReadPrefix<MemoryNotification>(data, size);
            default:
                break;
        }
    }
    const size_t shown = std::min<size_t>(size, UnknownEvent::MAX_START);
    return UnknownEvent{type, size, std::string(static_cast<const char*>(data), shown)};
}

}  // namespace Tesu::Bpf
