// SPDX-License-Identifier: Apache-2.0
//
// The kernel's records, made by hand. Times are nanoseconds, sizes bytes.
#pragma once

#include <array>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <string>

#include "records/raw_event.h"
#include "records/read_prefix.h"

namespace Tesu::Bpf {

// The bytes of a record, as they are on the wire.
template <class Record>
std::string Bytes(const Record& record) {
    return {reinterpret_cast<const char*>(&record), sizeof(record)};
}

// The record at the front of the bytes; what they do not cover is 0.
template <class Record>
Record As(const std::string& bytes) {
    return ReadPrefix<Record>(bytes.data(), std::ssize(bytes));
}

// Fills the field, with zeros behind a shorter name; what does not fit is left out.
template <size_t N>
void SetName(char (&field)[N], const std::string& name) {
    std::memset(field, 0, N);
    name.copy(field, N);
}

inline RawEventHeader Header(RawEventType type, int64_t time) {
    return {.type = type, .padding = 0, .time = time};
}

// sizes: file, anonymous, shared, swap.
inline RawTesuTaskInitEvent Init(int64_t time, int32_t pid, int32_t ppid, int32_t threads,
                                 const std::string& name, const std::array<int64_t, 4>& sizes,
                                 int64_t startTime = 1600000000) {
    const auto [file, anonymous, shared, swap] = sizes;
    const RawEventHeader header = Header(RAW_EVENT_TASK_INIT, time);
    RawTesuTaskInitEvent event{header, pid,       ppid,   1000, threads,  {},
                               file,   anonymous, shared, swap, startTime};
    SetName(event.comm, name);
    return event;
}

inline RawRssStatEvent Rss(int64_t time, int32_t pid, int32_t member, int64_t size) {
    return {Header(RAW_EVENT_RSS_STAT, time), pid, member, size};
}

inline RawTaskCreateEvent Create(int64_t time, int32_t ppid, int32_t pid, const std::string& name,
                                 int32_t taskType = RAW_TASK_PROCESS) {
    RawTaskCreateEvent event{Header(RAW_EVENT_TASK_CREATE, time), ppid, pid, 1000, {}, taskType};
    SetName(event.comm, name);
    return event;
}

inline RawTaskExitEvent Exit(int64_t time, int32_t pid, const std::string& name,
                             int32_t taskType = RAW_TASK_PROCESS) {
    RawTaskExitEvent event{Header(RAW_EVENT_TASK_EXIT, time), pid, {}, taskType};
    SetName(event.comm, name);
    return event;
}

}  // namespace Tesu::Bpf
