// SPDX-License-Identifier: Apache-2.0
#include "client/event_names.h"

#include <algorithm>
#include <string_view>

#include "records/notification.h"
#include "records/raw_event.h"
#include "util/string_util.h"

namespace Tesu::Bpf {

namespace {

struct EventName {
    uint32_t type;
    const char* name;
    const char* alias;
};

constexpr EventName EVENT_NAMES[] = {
    {RAW_EVENT_TASK_INIT, "task-init", "init"},
    {RAW_EVENT_RSS_STAT, "rss-stat", "rss"},
    {RAW_EVENT_TASK_CREATE, "task-create", "fork"},
    {RAW_EVENT_TASK_EXIT, "task-exit", "exit"},
    {RAW_EVENT_DMABUF_SIZE, "dmabuf-size", "dmabuf"},
    {RAW_EVENT_CGROUP_ATTACH, "cgroup-attach", "cgroup"},
    {RAW_EVENT_FD_UPDATE, "fd-update", "fds"},
    {NOTIFICATION_PROCESS_CREATED, "process-created", "created"},
    {NOTIFICATION_PROCESS_EXITED, "process-exited", "exited"},
    {NOTIFICATION_THREAD_COUNT, "thread-count-change", "threads"},
    {NOTIFICATION_MEMORY, "memory-change", "memory"},
};

constexpr const char* ALL_TYPES = "all";

const EventName* FindName(std::string_view word) {
    const auto* const found =
        std::find_if(std::begin(EVENT_NAMES), std::end(EVENT_NAMES), [word](const EventName& e) {
            return word == e.name || word == e.alias || word == std::to_string(e.type);
        });
    return found == std::end(EVENT_NAMES) ? nullptr : found;
}

void AddOnce(uint32_t type, std::vector<int>* types) {
    const int wanted = static_cast<int>(type);
    if (std::find(types->begin(), types->end(), wanted) == types->end()) {
        types->push_back(wanted);
    }
}

}  // namespace

const char* EventTypeName(uint32_t type) {
    for (const EventName& entry : EVENT_NAMES) {
        if (entry.type == type) {
            return entry.name;
        }
    }
    return nullptr;
}

const char* RssMemberName(int32_t member) {
    static constexpr const char* NAMES[] = {"file", "anon", "swap", "shmem"};
    return member >= 0 && member < 4 ? NAMES[member] : nullptr;
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

std::string DescribeEventTypes() {
    std::string text;
    for (const EventName& entry : EVENT_NAMES) {
        text += StringPrintf("  %-20s %-8s %u\n", entry.name, entry.alias, entry.type);
    }
    return text;
}

bool ParseEventTypes(const std::vector<std::string>& arguments, std::vector<int>* types,
                     std::string* error) {
    for (const std::string& argument : arguments) {
        const std::vector<std::string> words = Split(argument, ",");
        if (words.empty()) {
            *error = "an event type is missing; the types are:\n" + DescribeEventTypes();
            return false;
        }
        for (const std::string& word : words) {
            if (word == ALL_TYPES) {
                for (const EventName& entry : EVENT_NAMES) {
                    AddOnce(entry.type, types);
                }
                continue;
            }
            const EventName* const entry = FindName(word);
            if (entry == nullptr) {
                *error =
                    "\"" + word + "\" is no event type; the types are:\n" + DescribeEventTypes();
                return false;
            }
            AddOnce(entry->type, types);
        }
    }
    return true;
}

}  // namespace Tesu::Bpf
