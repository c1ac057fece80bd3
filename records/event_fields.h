// SPDX-License-Identifier: Apache-2.0
//
// The fields of each event behind its header, in the order in which programs see them.
#pragma once

#include <cstdint>
#include <tuple>

#include "records/notification.h"
#include "records/raw_event.h"

namespace Tesu::Bpf {

// "file", "anon", "swap" or "shmem"; nullptr for a number that is no RssMember.
const char* RssMemberName(int32_t member);
// "process" or "thread"; nullptr for a number that is neither.
const char* TaskTypeName(int32_t taskType);

// "core" or "gpl"; nullptr for a number that is neither.
const char* RingName(int32_t ring);

template <class Record, class Member>
struct EventField {
    // nameOf: the name of a value, nullptr for one that has none. Without it values have no names.
    constexpr EventField(const char* key, Member Record::*member,
                         const char* (*nameOf)(int32_t value) = nullptr)
        : key(key), member(member), nameOf(nameOf) {}

    const char* key;  // for programs, with the unit
    Member Record::*member;
    const char* (*nameOf)(int32_t value);
};

template <class Record>
inline constexpr std::tuple<> EVENT_FIELDS;

template <>
inline constexpr auto EVENT_FIELDS<RawTesuTaskInitEvent> =
    std::tuple{EventField{"pid", &RawTesuTaskInitEvent::pid},
               EventField{"ppid", &RawTesuTaskInitEvent::ppid},
               EventField{"uid", &RawTesuTaskInitEvent::uid},
               EventField{"threads", &RawTesuTaskInitEvent::threadNum},
               EventField{"comm", &RawTesuTaskInitEvent::comm},
               EventField{"rss_file_bytes", &RawTesuTaskInitEvent::rssFileSize},
               EventField{"rss_anon_bytes", &RawTesuTaskInitEvent::rssAnonSize},
               EventField{"rss_shmem_bytes", &RawTesuTaskInitEvent::rssShmemSize},
               EventField{"swap_bytes", &RawTesuTaskInitEvent::rssSwapSize},
               EventField{"start_time_s", &RawTesuTaskInitEvent::startTime}};

template <>
inline constexpr auto EVENT_FIELDS<RawRssStatEvent> =
    std::tuple{EventField{"pid", &RawRssStatEvent::pid},
               EventField{"member", &RawRssStatEvent::member, RssMemberName},
               EventField{"size_bytes", &RawRssStatEvent::size}};

template <>
inline constexpr auto EVENT_FIELDS<RawTaskCreateEvent> = std::tuple{
    EventField{"pid", &RawTaskCreateEvent::pid}, EventField{"ppid", &RawTaskCreateEvent::ppid},
    EventField{"uid", &RawTaskCreateEvent::uid}, EventField{"comm", &RawTaskCreateEvent::comm},
    EventField{"task_type", &RawTaskCreateEvent::taskType, TaskTypeName}};

template <>
inline constexpr auto EVENT_FIELDS<RawTaskExitEvent> = std::tuple{
    EventField{"pid", &RawTaskExitEvent::pid}, EventField{"comm", &RawTaskExitEvent::comm},
    EventField{"task_type", &RawTaskExitEvent::taskType, TaskTypeName}};

template <>
inline constexpr auto EVENT_FIELDS<RawDmabufAllocEvent> =
    std::tuple{EventField{"pid", &RawDmabufAllocEvent::pid},
               EventField{"size_bytes", &RawDmabufAllocEvent::size}};

template <>
inline constexpr auto EVENT_FIELDS<RawCgroupAttachEvent> =
    std::tuple{EventField{"tid", &RawCgroupAttachEvent::pid},
               EventField{"comm", &RawCgroupAttachEvent::comm},
               EventField{"hierarchy_id", &RawCgroupAttachEvent::rootId},
               EventField{"level", &RawCgroupAttachEvent::level},
               EventField{"cgroup_id", &RawCgroupAttachEvent::cgroupId},
               EventField{"path", &RawCgroupAttachEvent::path}};

template <>
inline constexpr auto EVENT_FIELDS<RawFdUpdateEvent> = std::tuple{
    EventField{"pid", &RawFdUpdateEvent::pid}, EventField{"uid", &RawFdUpdateEvent::uid},
    EventField{"comm", &RawFdUpdateEvent::comm}, EventField{"open_fds", &RawFdUpdateEvent::openFds},
    EventField{"reported_fds", &RawFdUpdateEvent::reportedFds}};

template <>
inline constexpr auto EVENT_FIELDS<ProcessCreatedNotification> =
    std::tuple{EventField{"pid", &ProcessCreatedNotification::pid},
               EventField{"ppid", &ProcessCreatedNotification::ppid},
               EventField{"uid", &ProcessCreatedNotification::uid},
               EventField{"comm", &ProcessCreatedNotification::comm}};

template <>
inline constexpr auto EVENT_FIELDS<ProcessExitedNotification> =
    std::tuple{EventField{"pid", &ProcessExitedNotification::pid},
               EventField{"comm", &ProcessExitedNotification::comm}};

template <>
inline constexpr auto EVENT_FIELDS<ThreadCountNotification> =
    std::tuple{EventField{"pid", &ThreadCountNotification::pid},
               EventField{"ppid", &ThreadCountNotification::ppid},
               EventField{"uid", &ThreadCountNotification::uid},
               EventField{"threads", &ThreadCountNotification::threadNum},
               EventField{"old_threads", &ThreadCountNotification::oldThreadNum}};

template <>
inline constexpr auto EVENT_FIELDS<MemoryNotification> =
    std::tuple{EventField{"pid", &MemoryNotification::pid},
               EventField{"ppid", &MemoryNotification::ppid},
               EventField{"uid", &MemoryNotification::uid},
               EventField{"comm", &MemoryNotification::comm},
               EventField{"rss_file_bytes", &MemoryNotification::rssFileSize},
               EventField{"rss_anon_bytes", &MemoryNotification::rssAnonSize},
               EventField{"swap_bytes", &MemoryNotification::rssSwapSize},
               EventField{"rss_shmem_bytes", &MemoryNotification::rssShmemSize},
               EventField{"old_rss_file_bytes", &MemoryNotification::rssFileOldSize},
               EventField{"old_rss_anon_bytes", &MemoryNotification::rssAnonOldSize},
               EventField{"old_swap_bytes", &MemoryNotification::rssSwapOldSize},
               EventField{"old_rss_shmem_bytes", &MemoryNotification::rssShmemOldSize}};

template <>
inline constexpr auto EVENT_FIELDS<RecordsLostNotification> =
    std::tuple{EventField{"ring", &RecordsLostNotification::ring, RingName},
               EventField{"lost", &RecordsLostNotification::lost},
               EventField{"total", &RecordsLostNotification::total}};

}  // namespace Tesu::Bpf
