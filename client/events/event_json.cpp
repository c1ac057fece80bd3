// SPDX-License-Identifier: Apache-2.0
#include "client/events/event_json.h"

#include <nlohmann/json.hpp>
#include <tuple>
#include <type_traits>
#include <variant>

#include "util/string_util.h"

namespace Tesu::Bpf {

namespace {

// Keeps the order in which fields were added.
using Object = nlohmann::ordered_json;

template <class Record, class Member>
void AddField(const EventField<Record, Member>& field, const Record& record, Object* object) {
    const auto& value = record.*field.member;
    if constexpr (std::is_array_v<Member>) {
        (*object)[field.key] = FieldText(value);
    } else {
        (*object)[field.key] = value;
        if (field.nameOf != nullptr) {
            const char* const name = field.nameOf(static_cast<int32_t>(value));
            (*object)[field.key + std::string("_name")] = name != nullptr ? name : "unknown";
        }
    }
}

template <class Record>
Object Describe(const Record& record, const EventType& type, int64_t receivedTime) {
    Object object = {{"event", type.name}, {"type", type.type}};
    if constexpr (requires { record.header; }) {
        object["time_ns"] = record.header.time;
    } else {
        object["received_ns"] = receivedTime;
    }
    static_assert(std::tuple_size_v<std::remove_const_t<decltype(EVENT_FIELDS<Record>)>> > 0,
                  "a type without fields has no row in event_fields.h");
    std::apply([&](const auto&... field) { (AddField(field, record, &object), ...); },
               EVENT_FIELDS<Record>);
    return object;
}

Object DescribeUnknown(const UnknownEvent& event, int64_t receivedTime) {
    Object object = {{"event", "unknown"}, {"type", nullptr}};
    if (event.type) {
        object["type"] = *event.type;
    }
    object["received_ns"] = receivedTime;
    object["size_bytes"] = event.size;
    object["start_hex"] =
        ConvertToHexString(event.start.data(), static_cast<int>(event.start.size()));
    return object;
}

}  // namespace

std::string FormatEventJson(const Event& event, int64_t receivedTime) {
    const Object object = std::visit(
        [&]<class Record>(const Record& record) {
            if constexpr (std::is_same_v<Record, UnknownEvent>) {
                return DescribeUnknown(record, receivedTime);
            } else {
                return Describe(record, EVENT_TYPES[event.index()], receivedTime);
            }
        },
        event);
    return object.dump(-1, ' ', true, Object::error_handler_t::replace);
}

}  // namespace Tesu::Bpf
