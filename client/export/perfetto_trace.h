// SPDX-License-Identifier: Apache-2.0
//
// A trace in Perfetto's format: packets one behind the other, any beginning of which is a trace.
//
// Processes are told as the kernel's own trace events tell them (ftrace's task_newtask and
// sched_process_free), because only those let a process end and keep two of one number apart. Each
// call adds what happened at that time; the reader orders by time, of equal times by the calls.
//
// Times are monotonic nanoseconds, and CLOCK_BOOTTIME in the trace, so that it fits to a system
// trace of the same boot. Sizes are bytes. Used by one thread at a time.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "client/export/proto_message.h"
#include "proc/process_snapshot.h"
#include "recording/format.h"

namespace Tesu::Bpf {

class PerfettoTrace {
  public:
    // What the times that follow are to be understood by.
    void addClocks(const ClockReading& reading);
    void addMachine(const HeaderBlock& header);

    // A process that /proc showed: name, owner, parent. When its parent is another than before, the
    // reader takes it for another process of this number.
    void addProcess(int64_t time, const ProcessSnapshot& process);
    void addMemory(int64_t time, int32_t pid, const std::array<int64_t, RSS_MEMBER_COUNT>& memory);

    void addFork(int64_t time, int32_t parent, int32_t pid, std::string_view name);
    void addRename(int64_t time, int32_t pid, std::string_view before, std::string_view name);
    void addEnd(int64_t time, int32_t pid, std::string_view name);
    void addSize(int64_t time, int32_t pid, int32_t member, int64_t size);
    void addDmabufSize(int64_t time, int32_t pid, int64_t size);
    // A figure of the process that the format has no place for.
    void addCounter(int64_t time, int32_t pid, std::string_view name, int64_t value);

    // On a track of their own: from when until when nothing was recorded, and what was lost.
    void beginGap(int64_t time, std::string_view reason);
    void endGap(int64_t time);
    void addLoss(int64_t time, std::string_view what);

    // What was added since it was last taken. Kernel events are a packet for each time that this is
    // called, so it should be every second or so.
    std::string take();

  private:
    int64_t toBoottime(int64_t time) const;
    void addPacket(uint32_t field, const ProtoMessage& content);
    void addPacketAt(int64_t time, uint32_t field, const ProtoMessage& content);
    void addKernelEvent(int64_t time, int32_t pid, uint32_t field, const ProtoMessage& content);
    void addNotRecorded(int64_t time, int64_t type, std::string_view what);

    std::string packets;
    std::vector<std::pair<int64_t, ProtoMessage>> kernelEvents;  // by their time; not yet a packet
    bool hasLost = false;                                        // since the last packet of them
    bool hasLossTrack = false;
    int64_t boottimeOffset = 0;
};

}  // namespace Tesu::Bpf
