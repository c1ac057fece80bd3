// SPDX-License-Identifier: Apache-2.0
#include "records/event_table.h"

#include <algorithm>
#include <iterator>

#include "records/read_prefix.h"

namespace Tesu::Bpf {

namespace {

// The row of alternative `Index` of Event.
template <size_t Index>
constexpr EventType Row(uint32_t type, const char* name, const char* shortForm) {
    using Record = std::variant_alternative_t<Index, Event>;
    return {type, name, shortForm, [](const void* data, uint32_t size) -> Event {
                return ReadPrefix<Record>(data, size);
            }};
}

constexpr EventType ROWS[] = {
    Row<0>(RAW_EVENT_TASK_INIT, "task-init", "init"),
    Row<1>(RAW_EVENT_RSS_STAT, "rss-stat", "rss"),
    Row<2>(RAW_EVENT_TASK_CREATE, "task-create", "fork"),
    Row<3>(RAW_EVENT_TASK_EXIT, "task-exit", "exit"),
    Row<4>(RAW_EVENT_DMABUF_SIZE, "dmabuf-size", "dmabuf"),
    Row<5>(RAW_EVENT_CGROUP_ATTACH, "cgroup-attach", "cgroup"),
    Row<6>(RAW_EVENT_FD_UPDATE, "fd-update", "fds"),
    Row<7>(NOTIFICATION_PROCESS_CREATED, "process-created", "created"),
    Row<8>(NOTIFICATION_PROCESS_EXITED, "process-exited", "exited"),
    Row<9>(NOTIFICATION_THREAD_COUNT, "thread-count-change", "threads"),
    Row<10>(NOTIFICATION_MEMORY, "memory-change", "memory"),
    Row<11>(NOTIFICATION_RECORDS_LOST, "records-lost", "lost"),
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

const char* RingName(int32_t ring) {
    return ring == 0 ? "core" : ring == 1 ? "gpl" : nullptr;
}

const char* RssMemberName(int32_t member) {
    static constexpr const char* NAMES[] = {"file", "anon", "swap", "shmem"};
    static_assert(std::size(NAMES) == RSS_MEMBER_COUNT);
    return member >= 0 && member < RSS_MEMBER_COUNT ? NAMES[member] : nullptr;
}

}  // namespace Tesu::Bpf
