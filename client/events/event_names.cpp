// SPDX-License-Identifier: Apache-2.0
#include "client/events/event_names.h"

#include <algorithm>

#include "records/event_table.h"
#include "util/string_util.h"

namespace Tesu::Bpf {

namespace {

constexpr const char* ALL_TYPES = "all";

// Adds, once, each type that the word stands for; false when there is none.
bool AddTypes(const std::string& word, std::vector<uint32_t>* types) {
    bool isKnown = false;
    for (const EventType& row : EVENT_TYPES) {
        if (word != ALL_TYPES && word != row.name && word != row.shortForm &&
            word != std::to_string(row.type)) {
            continue;
        }
        isKnown = true;
        if (std::find(types->begin(), types->end(), row.type) == types->end()) {
            types->push_back(row.type);
        }
    }
    return isKnown;
}

}  // namespace

std::string EventTypeName(uint32_t type) {
    const auto row = std::ranges::find(EVENT_TYPES, type, &EventType::type);
    return row != EVENT_TYPES.end() ? row->name : std::to_string(type);
}

std::string DescribeEventTypes() {
    std::string text;
    for (const EventType& row : EVENT_TYPES) {
        text += StringPrintf("  %-20s %-8s %u\n", row.name, row.shortForm, row.type);
    }
    return text;
}

Result<std::vector<uint32_t>> ParseEventTypes(const std::vector<std::string>& arguments) {
    std::vector<uint32_t> types;
    for (const std::string& argument : arguments) {
        const std::vector<std::string> words = Split(argument, ",");
        if (words.empty()) {
            return Failure("an event type is missing; the types are:\n" + DescribeEventTypes());
        }
        for (const std::string& word : words) {
            if (!AddTypes(word, &types)) {
                return Failure("\"" + word + "\" is no event type; the types are:\n" +
                               DescribeEventTypes());
            }
        }
    }
    return types;
}

}  // namespace Tesu::Bpf
