// SPDX-License-Identifier: Apache-2.0
//
// What there is to know of each event that a client receives, the kernel's records and the
// service's notifications alike: one row for each type. Whoever decodes or names events goes by
// this table; a new type is a struct in raw_event.h or notification.h, its fields in
// event_fields.h, a row in event_types.h, and in the client what is printed of it.
//
// Pure; any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <variant>

#include "records/event_fields.h"
#include "records/event_types.h"

namespace Tesu::Bpf {

// An event of a type that is not in the table.
struct UnknownEvent {
    std::optional<uint32_t> type;  // none: too short to carry one
    uint32_t size = 0;             // bytes received
    std::string start;             // the first bytes of it, at most MAX_START

    static constexpr size_t MAX_START = 64;
};

// In the order of the table, the unknown last.
#define TESU_ALTERNATIVE(record, ...) record,
using Event = std::variant<TESU_EVENT_TYPES(TESU_ALTERNATIVE) UnknownEvent>;
#undef TESU_ALTERNATIVE

struct EventType {
    uint32_t type;
    const char* name;       // e.g. "task-create"
    const char* shortForm;  // e.g. "fork"
    // See DecodeEvent.
    Event (*decode)(const void* data, uint32_t size);
};

// By type.
extern const std::span<const EventType> EVENT_TYPES;

// `data` may be unaligned. What a short event does not cover is 0; what a long one has beyond the
// known fields is left out.
Event DecodeEvent(const void* data, uint32_t size);

// A fixed-size text field up to its first NUL, or whole when it has none. Valid as long as `field`.
template <size_t N>
std::string_view FieldText(const char (&field)[N]) {
    const std::string_view whole(field, N);
    return whole.substr(0, whole.find('\0'));
}

}  // namespace Tesu::Bpf
