// SPDX-License-Identifier: Apache-2.0
#include "records/event_table.h"

#include <algorithm>
#include <iterator>

#include "records/read_prefix.h"

namespace Tesu::Bpf {

namespace {

template <class Record>
Event Decode(const void* data, uint32_t size) {
    return ReadPrefix<Record>(data, size);
}

#define ROW(record, type, name, shortForm) {type, name, shortForm, Decode<record>},
constexpr EventType ROWS[] = {TESU_EVENT_TYPES(ROW)};
#undef ROW

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
