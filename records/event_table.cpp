// SPDX-License-Identifier: Apache-2.0
#include "records/event_table.h"

#include <algorithm>
#include <iterator>
#include <type_traits>

#include "records/read_prefix.h"

namespace Tesu::Bpf {

namespace {

const char* TaskTypeName(int32_t taskType) {
    switch (taskType) {
        case RAW_TASK_PROCESS:
            return "process";
        case RAW_TASK_THREAD:
            return "thread";
        default:
            return nullptr;
    }
}

template <class Member>
constexpr FieldKind KindOf() {
    if constexpr (std::is_same_v<Member, int32_t>) {
        return FieldKind::INT32;
    } else if constexpr (std::is_same_v<Member, int64_t>) {
        return FieldKind::INT64;
    } else if constexpr (std::is_same_v<Member, uint64_t>) {
        return FieldKind::UINT64;
    } else {
        static_assert(std::is_same_v<std::remove_extent_t<Member>, char>);
        return FieldKind::TEXT;
    }
}

#define NAMED_FIELD(record, member, key, nameOf)                                                   \
    EventField {                                                                                   \
        key, KindOf<decltype(record::member)>(), offsetof(record, member), sizeof(record::member), \
            nameOf                                                                                 \
    }
#define FIELD(record, member, key) NAMED_FIELD(record, member, key, nullptr)

constexpr EventField TASK_INIT_FIELDS[] = {
    FIELD(RawTesuTaskInitEvent, pid, "pid"),
    FIELD(RawTesuTaskInitEvent, ppid, "ppid"),
    FIELD(RawTesuTaskInitEvent, uid, "uid"),
    FIELD(RawTesuTaskInitEvent, threadNum, "threads"),
    FIELD(RawTesuTaskInitEvent, comm, "comm"),
    FIELD(RawTesuTaskInitEvent, rssFileSize, "rss_file_bytes"),
    FIELD(RawTesuTaskInitEvent, rssAnonSize, "rss_anon_bytes"),
    FIELD(RawTesuTaskInitEvent, rssShmemSize, "rss_shmem_bytes"),
    FIELD(RawTesuTaskInitEvent, rssSwapSize, "swap_bytes"),
    FIELD(RawTesuTaskInitEvent, startTime, "start_time_s"),
};

constexpr EventField RSS_STAT_FIELDS[] = {
    FIELD(RawRssStatEvent, pid, "pid"),
    NAMED_FIELD(RawRssStatEvent, member, "member", RssMemberName),
    FIELD(RawRssStatEvent, size, "size_bytes"),
};

constexpr EventField TASK_CREATE_FIELDS[] = {
    FIELD(RawTaskCreateEvent, pid, "pid"),
    FIELD(RawTaskCreateEvent, ppid, "ppid"),
    FIELD(RawTaskCreateEvent, uid, "uid"),
    FIELD(RawTaskCreateEvent, comm, "comm"),
    NAMED_FIELD(RawTaskCreateEvent, taskType, "task_type", TaskTypeName),
};

constexpr EventField TASK_EXIT_FIELDS[] = {
    FIELD(RawTaskExitEvent, pid, "pid"),
    FIELD(RawTaskExitEvent, comm, "comm"),
    NAMED_FIELD(RawTaskExitEvent, taskType, "task_type", TaskTypeName),
};

constexpr EventField DMABUF_SIZE_FIELDS[] = {
    FIELD(RawDmabufAllocEvent, pid, "pid"),
    FIELD(RawDmabufAllocEvent, size, "size_bytes"),
};

constexpr EventField CGROUP_ATTACH_FIELDS[] = {
    FIELD(RawCgroupAttachEvent, pid, "tid"),
    FIELD(RawCgroupAttachEvent, comm, "comm"),
    FIELD(RawCgroupAttachEvent, rootId, "hierarchy_id"),
    FIELD(RawCgroupAttachEvent, level, "level"),
    FIELD(RawCgroupAttachEvent, cgroupId, "cgroup_id"),
    FIELD(RawCgroupAttachEvent, path, "path"),
};

constexpr EventField FD_UPDATE_FIELDS[] = {
    FIELD(RawFdUpdateEvent, pid, "pid"),
    FIELD(RawFdUpdateEvent, uid, "uid"),
    FIELD(RawFdUpdateEvent, comm, "comm"),
    FIELD(RawFdUpdateEvent, openFds, "open_fds"),
    FIELD(RawFdUpdateEvent, reportedFds, "reported_fds"),
};

constexpr EventField PROCESS_CREATED_FIELDS[] = {
    FIELD(ProcessCreatedNotification, pid, "pid"),
    FIELD(ProcessCreatedNotification, ppid, "ppid"),
    FIELD(ProcessCreatedNotification, uid, "uid"),
    FIELD(ProcessCreatedNotification, comm, "comm"),
};

constexpr EventField PROCESS_EXITED_FIELDS[] = {
    FIELD(ProcessExitedNotification, pid, "pid"),
    FIELD(ProcessExitedNotification, comm, "comm"),
};

constexpr EventField THREAD_COUNT_FIELDS[] = {
    FIELD(ThreadCountNotification, pid, "pid"),
    FIELD(ThreadCountNotification, ppid, "ppid"),
    FIELD(ThreadCountNotification, uid, "uid"),
    FIELD(ThreadCountNotification, threadNum, "threads"),
    FIELD(ThreadCountNotification, oldThreadNum, "old_threads"),
};

constexpr EventField MEMORY_FIELDS[] = {
    FIELD(MemoryNotification, pid, "pid"),
    FIELD(MemoryNotification, ppid, "ppid"),
    FIELD(MemoryNotification, uid, "uid"),
    FIELD(MemoryNotification, comm, "comm"),
    FIELD(MemoryNotification, rssFileSize, "rss_file_bytes"),
    FIELD(MemoryNotification, rssAnonSize, "rss_anon_bytes"),
    FIELD(MemoryNotification, rssSwapSize, "swap_bytes"),
    FIELD(MemoryNotification, rssShmemSize, "rss_shmem_bytes"),
    FIELD(MemoryNotification, rssFileOldSize, "old_rss_file_bytes"),
    FIELD(MemoryNotification, rssAnonOldSize, "old_rss_anon_bytes"),
    FIELD(MemoryNotification, rssSwapOldSize, "old_swap_bytes"),
    FIELD(MemoryNotification, rssShmemOldSize, "old_rss_shmem_bytes"),
};

#undef FIELD
#undef NAMED_FIELD

// The row of alternative `Index` of Event.
template <size_t Index>
constexpr EventType Row(uint32_t type, const char* name, const char* shortForm,
                        std::span<const EventField> fields) {
    using Record = std::variant_alternative_t<Index, Event>;
    return {type, name, shortForm, fields, [](const void* data, uint32_t size) -> Event {
                return ReadPrefix<Record>(data, size);
            }};
}

constexpr EventType ROWS[] = {
    Row<0>(RAW_EVENT_TASK_INIT, "task-init", "init", TASK_INIT_FIELDS),
    Row<1>(RAW_EVENT_RSS_STAT, "rss-stat", "rss", RSS_STAT_FIELDS),
    Row<2>(RAW_EVENT_TASK_CREATE, "task-create", "fork", TASK_CREATE_FIELDS),
    Row<3>(RAW_EVENT_TASK_EXIT, "task-exit", "exit", TASK_EXIT_FIELDS),
    Row<4>(RAW_EVENT_DMABUF_SIZE, "dmabuf-size", "dmabuf", DMABUF_SIZE_FIELDS),
    Row<5>(RAW_EVENT_CGROUP_ATTACH, "cgroup-attach", "cgroup", CGROUP_ATTACH_FIELDS),
    Row<6>(RAW_EVENT_FD_UPDATE, "fd-update", "fds", FD_UPDATE_FIELDS),
    Row<7>(NOTIFICATION_PROCESS_CREATED, "process-created", "created", PROCESS_CREATED_FIELDS),
    Row<8>(NOTIFICATION_PROCESS_EXITED, "process-exited", "exited", PROCESS_EXITED_FIELDS),
    Row<9>(NOTIFICATION_THREAD_COUNT, "thread-count-change", "threads", THREAD_COUNT_FIELDS),
    Row<10>(NOTIFICATION_MEMORY, "memory-change", "memory", MEMORY_FIELDS),
};
static_assert(std::size(ROWS) + 1 == std::variant_size_v<Event>);

}  // namespace

constinit const std::span<const EventType> EVENT_TYPES = ROWS;

Event DecodeEvent(const void* data, uint32_t size) {
    std::optional<uint32_t> type;
    if (size >= sizeof(uint32_t)) {
        type = ReadPrefix<uint32_t>(data, size);
        const auto row = std::ranges::find(ROWS, *type, &EventType::type);
        if (row != std::end(ROWS)) {
            return row->decode(data, size);
        }
    }
    const size_t shown = std::min<size_t>(size, UnknownEvent::MAX_START);
    return UnknownEvent{type, size, std::string(static_cast<const char*>(data), shown)};
}

const char* RssMemberName(int32_t member) {
    static constexpr const char* NAMES[] = {"file", "anon", "swap", "shmem"};
    static_assert(std::size(NAMES) == RSS_MEMBER_COUNT);
    return member >= 0 && member < RSS_MEMBER_COUNT ? NAMES[member] : nullptr;
}

}  // namespace Tesu::Bpf
