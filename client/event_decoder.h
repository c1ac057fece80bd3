// SPDX-License-Identifier: Apache-2.0
//
// Bytes of an event package to a typed event. Pure; any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "records/notification.h"
#include "records/raw_event.h"

namespace Tesu::Bpf {

// An event of a type that this client does not know.
struct UnknownEvent {
    std::optional<uint32_t> type;  // none: too short to carry one
    uint32_t size = 0;             // bytes received
    std::string start;             // the first bytes of it, at most MAX_START

    static constexpr size_t MAX_START = 64;
};

using Event = std::variant<RawTesuTaskInitEvent, RawRssStatEvent, RawTaskCreateEvent,
                           RawTaskExitEvent, RawDmabufAllocEvent, RawCgroupAttachEvent,
                           RawFdUpdateEvent, ProcessCreatedNotification, ProcessExitedNotification,
                           ThreadCountNotification, MemoryNotification, UnknownEvent>;

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
