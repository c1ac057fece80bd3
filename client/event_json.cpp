// SPDX-License-Identifier: Apache-2.0
#include "client/event_json.h"

#include <nlohmann/json.hpp>
#include <string_view>
#include <variant>

#include "client/event_names.h"
#include "util/string_util.h"

namespace Tesu::Bpf {

namespace {

// Keeps the order in which fields were added.
using Object = nlohmann::ordered_json;

// What a number stands for, when it stands for something.
const char* OrUnknown(const char* name) {
    return name != nullptr ? name : "unknown";
}

// The head of every object.
Object Head(uint32_t type) {
    return {{"event", OrUnknown(EventTypeName(type))}, {"type", type}};
}

Object Head(const RawEventHeader& header) {
    Object object = Head(header.type);
    object["time_ns"] = header.time;
    return object;
}

Object Head(uint32_t type, int64_t receivedTime) {
    Object object = Head(type);
    object["received_ns"] = receivedTime;
    return object;
}

Object Describe(const RawTesuTaskInitEvent& event, int64_t /*receivedTime*/) {
    Object object = Head(event.header);
    object["pid"] = event.pid;
    object["ppid"] = event.ppid;
    object["uid"] = event.uid;
    object["threads"] = event.threadNum;
    object["comm"] = FieldText(event.comm);
    object["rss_file_bytes"] = event.rssFileSize;
    object["rss_anon_bytes"] = event.rssAnonSize;
    object["rss_shmem_bytes"] = event.rssShmemSize;
    object["swap_bytes"] = event.rssSwapSize;
    object["start_time_s"] = event.startTime;
    return object;
}

Object Describe(const RawRssStatEvent& event, int64_t /*receivedTime*/) {
    Object object = Head(event.header);
    object["pid"] = event.pid;
    object["member"] = event.member;
    object["member_name"] = OrUnknown(RssMemberName(event.member));
    object["size_bytes"] = event.size;
    return object;
}

Object Describe(const RawTaskCreateEvent& event, int64_t /*receivedTime*/) {
    Object object = Head(event.header);
    object["pid"] = event.pid;
    object["ppid"] = event.ppid;
    object["uid"] = event.uid;
    object["comm"] = FieldText(event.comm);
    object["task_type"] = event.taskType;
    object["task_type_name"] = OrUnknown(TaskTypeName(event.taskType));
    return object;
}

Object Describe(const RawTaskExitEvent& event, int64_t /*receivedTime*/) {
    Object object = Head(event.header);
    object["pid"] = event.pid;
    object["comm"] = FieldText(event.comm);
    object["task_type"] = event.taskType;
    object["task_type_name"] = OrUnknown(TaskTypeName(event.taskType));
    return object;
}

Object Describe(const RawDmabufAllocEvent& event, int64_t /*receivedTime*/) {
    Object object = Head(event.header);
    object["pid"] = event.pid;
    object["size_bytes"] = event.size;
    return object;
}

Object Describe(const RawCgroupAttachEvent& event, int64_t /*receivedTime*/) {
    Object object = Head(event.header);
    object["tid"] = event.pid;
    object["comm"] = FieldText(event.comm);
    object["hierarchy_id"] = event.rootId;
    object["level"] = event.level;
    object["cgroup_id"] = event.cgroupId;
    object["path"] = FieldText(event.path);
    return object;
}

Object Describe(const RawFdUpdateEvent& event, int64_t /*receivedTime*/) {
    Object object = Head(event.header);
    object["pid"] = event.pid;
    object["uid"] = event.uid;
    object["comm"] = FieldText(event.comm);
    object["open_fds"] = event.openFds;
    object["reported_fds"] = event.reportedFds;
    return object;
}

Object Describe(const ProcessCreatedNotification& event, int64_t receivedTime) {
    Object object = Head(event.type, receivedTime);
    object["pid"] = event.pid;
    object["ppid"] = event.ppid;
    object["uid"] = event.uid;
    object["comm"] = FieldText(event.comm);
    return object;
}

Object Describe(const ProcessExitedNotification& event, int64_t receivedTime) {
    Object object = Head(event.type, receivedTime);
    object["pid"] = event.pid;
    object["comm"] = FieldText(event.comm);
    return object;
}

Object Describe(const ThreadCountNotification& event, int64_t receivedTime) {
    Object object = Head(event.type, receivedTime);
    object["pid"] = event.pid;
    object["ppid"] = event.ppid;
    object["uid"] = event.uid;
    object["threads"] = event.threadNum;
    object["old_threads"] = event.oldThreadNum;
    return object;
}

Object Describe(const MemoryNotification& event, int64_t receivedTime) {
    Object object = Head(event.type, receivedTime);
    object["pid"] = event.pid;
    object["ppid"] = event.ppid;
    object["uid"] = event.uid;
    object["comm"] = FieldText(event.comm);
    object["rss_file_bytes"] = event.rssFileSize;
    object["rss_anon_bytes"] = event.rssAnonSize;
    object["swap_bytes"] = event.rssSwapSize;
    object["rss_shmem_bytes"] = event.rssShmemSize;
    object["old_rss_file_bytes"] = event.rssFileOldSize;
    object["old_rss_anon_bytes"] = event.rssAnonOldSize;
    object["old_swap_bytes"] = event.rssSwapOldSize;
    object["old_rss_shmem_bytes"] = event.rssShmemOldSize;
    return object;
}

Object Describe(const UnknownEvent& event, int64_t receivedTime) {
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
        [receivedTime](const auto& known) { return Describe(known, receivedTime); }, event);
    return object.dump(-1, ' ', true, Object::error_handler_t::replace);
}

}  // namespace Tesu::Bpf
