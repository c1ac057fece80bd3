// SPDX-License-Identifier: Apache-2.0
#include "client/events/event_json.h"

#include <nlohmann/json.hpp>
#include <variant>

#include "records/read_prefix.h"
#include "util/string_util.h"

namespace Tesu::Bpf {

namespace {

// Keeps the order in which fields were added.
using Object = nlohmann::ordered_json;

void AddField(const EventField& field, const char* record, Object* object) {
    const char* const bytes = record + field.offset;
    const auto size = static_cast<int64_t>(field.size);
    switch (field.kind) {
        case FieldKind::INT32: {
            const auto value = ReadPrefix<int32_t>(bytes, size);
            (*object)[field.key] = value;
            if (field.nameOf != nullptr) {
                const char* const name = field.nameOf(value);
                (*object)[field.key + std::string("_name")] = name != nullptr ? name : "unknown";
            }
            break;
        }
        case FieldKind::INT64:
            (*object)[field.key] = ReadPrefix<int64_t>(bytes, size);
            break;
        case FieldKind::UINT64:
            (*object)[field.key] = ReadPrefix<uint64_t>(bytes, size);
            break;
        case FieldKind::TEXT:
            (*object)[field.key] = FieldText(bytes, field.size);
            break;
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
    for (const EventField& field : type.fields) {
        AddField(field, reinterpret_cast<const char*>(&record), &object);
    }
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
