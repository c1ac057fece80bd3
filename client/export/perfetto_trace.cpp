// SPDX-License-Identifier: Apache-2.0
#include "client/export/perfetto_trace.h"

#include <algorithm>
#include <cstdlib>

#include "records/event_table.h"

namespace Tesu::Bpf {

namespace {

// Numbers of Perfetto's: protos/perfetto/trace in its sources. Names are those of the fields.
namespace Packet {
enum : uint32_t {
    FTRACE_EVENTS = 1,
    PROCESS_TREE = 2,
    CLOCK_SNAPSHOT = 6,
    TIMESTAMP = 8,
    PROCESS_STATS = 9,
    TRUSTED_PACKET_SEQUENCE_ID = 10,
    TRACK_EVENT = 11,
    SYSTEM_INFO = 45,
    TRACK_DESCRIPTOR = 60,
};
}  // namespace Packet

namespace Ftrace {
enum : uint32_t {
    PRINT = 3,
    TASK_NEWTASK = 235,
    TASK_RENAME = 236,
    SCHED_PROCESS_FREE = 240,
    RSS_STAT = 313,
};
}  // namespace Ftrace

enum BuiltinClock : int64_t { REALTIME = 1, MONOTONIC = 3, BOOTTIME = 6 };
enum TrackEventType : int64_t { SLICE_BEGIN = 1, SLICE_END = 2, INSTANT = 3 };

// Whatever no other writer uses, should this be put behind another trace.
constexpr int64_t SEQUENCE_ID = 0x74657375;
constexpr int64_t LOSS_TRACK = 0x74657375'0001;

constexpr int64_t KIB = 1024;

// The clocks are read one after the other. If they differ by less than this from what they did, the
// machine was busy and did not sleep, and what follows must not go back behind what came before.
constexpr int64_t LEAST_SLEEP = 10'000'000;

}  // namespace

int64_t PerfettoTrace::toBoottime(int64_t time) const {
    return std::max<int64_t>(time + boottimeOffset, 0);
}

void PerfettoTrace::addPacket(uint32_t field, const ProtoMessage& content) {
    ProtoMessage packet;
    packet.add(field, content).add(Packet::TRUSTED_PACKET_SEQUENCE_ID, SEQUENCE_ID);
    packets += ProtoMessage().add(1, packet).bytes();
}

void PerfettoTrace::addPacketAt(int64_t time, uint32_t field, const ProtoMessage& content) {
    ProtoMessage packet;
    packet.add(Packet::TIMESTAMP, toBoottime(time)).add(field, content);
    packet.add(Packet::TRUSTED_PACKET_SEQUENCE_ID, SEQUENCE_ID);
    packets += ProtoMessage().add(1, packet).bytes();
}

void PerfettoTrace::addClocks(const ClockReading& reading) {
    const int64_t offset = reading.boottime - reading.monotonic;
    if (std::abs(offset - boottimeOffset) >= LEAST_SLEEP) {
        boottimeOffset = offset;
    }
    const auto clock = [](BuiltinClock id, int64_t time) {
        return ProtoMessage().add(1, id).add(2, time);
    };
    addPacket(Packet::CLOCK_SNAPSHOT, ProtoMessage()
                                          .add(1, clock(BOOTTIME, reading.boottime))
                                          .add(1, clock(MONOTONIC, reading.monotonic))
                                          .add(1, clock(REALTIME, reading.realtime))
                                          .add(2, BOOTTIME));
}

void PerfettoTrace::addMachine(const HeaderBlock& header) {
    const auto utsname = ProtoMessage()
                             .add(1, FieldText(header.system))
                             .add(2, FieldText(header.version))
                             .add(3, FieldText(header.release))
                             .add(4, FieldText(header.machine));
    addPacket(Packet::SYSTEM_INFO, ProtoMessage()
                                       .add(1, utsname)
                                       .add(4, FieldText(header.recorder))
                                       .add(6, header.pageSize)
                                       .add(8, header.processors));
}

void PerfettoTrace::addProcess(int64_t time, const ProcessSnapshot& process) {
    const auto entry = ProtoMessage()
                           .add(1, process.pid)
                           .add(2, process.ppid)
                           .add(3, process.name)
                           .add(5, process.uid)
                           .add(7, toBoottime(process.startTime))
                           .add(8, int64_t{process.isKernelThread})
                           .add(9, 1);  // the name is the task's, no command line
    addPacketAt(time, Packet::PROCESS_TREE, ProtoMessage().add(1, entry));
}

void PerfettoTrace::addMemory(int64_t time, int32_t pid,
                              const std::array<int64_t, RSS_MEMBER_COUNT>& memory) {
    const auto entry = ProtoMessage()
                           .add(1, pid)
                           .add(4, memory[RSS_ANON] / KIB)
                           .add(5, memory[RSS_FILE] / KIB)
                           .add(6, memory[RSS_SHMEM] / KIB)
                           .add(7, memory[RSS_SWAP] / KIB);
    addPacketAt(time, Packet::PROCESS_STATS, ProtoMessage().add(1, entry));
}

void PerfettoTrace::addDmabufSize(int64_t time, int32_t pid, int64_t size) {
    addPacketAt(time, Packet::PROCESS_STATS,
                ProtoMessage().add(1, ProtoMessage().add(1, pid).add(24, size / KIB)));
}

void PerfettoTrace::addKernelEvent(int64_t time, int32_t pid, uint32_t field,
                                   const ProtoMessage& content) {
    kernelEvents.emplace_back(
        time, ProtoMessage().add(1, toBoottime(time)).add(2, pid).add(field, content));
}

void PerfettoTrace::addFork(int64_t time, int32_t parent, int32_t pid, std::string_view name) {
    addKernelEvent(time, parent, Ftrace::TASK_NEWTASK,
                   ProtoMessage().add(1, pid).add(2, name).add(3, 0));
}

void PerfettoTrace::addRename(int64_t time, int32_t pid, std::string_view before,
                              std::string_view name) {
    addKernelEvent(time, pid, Ftrace::TASK_RENAME,
                   ProtoMessage().add(1, pid).add(2, before).add(3, name));
}

void PerfettoTrace::addEnd(int64_t time, int32_t pid, std::string_view name) {
    addKernelEvent(time, pid, Ftrace::SCHED_PROCESS_FREE, ProtoMessage().add(1, name).add(2, pid));
}

void PerfettoTrace::addSize(int64_t time, int32_t pid, int32_t member, int64_t size) {
    addKernelEvent(time, pid, Ftrace::RSS_STAT, ProtoMessage().add(1, member).add(2, size));
}

// As programs write it into the kernel's trace_marker. A counter track of the format's own would
// name its process by number alone, and would be that of another one once the number is reused.
void PerfettoTrace::addCounter(int64_t time, int32_t pid, std::string_view name, int64_t value) {
    const std::string mark =
        "C|" + std::to_string(pid) + "|" + std::string(name) + "|" + std::to_string(value);
    addKernelEvent(time, pid, Ftrace::PRINT, ProtoMessage().add(2, mark));
}

void PerfettoTrace::addNotRecorded(int64_t time, int64_t type, std::string_view what) {
    if (!std::exchange(hasLossTrack, true)) {
        addPacket(Packet::TRACK_DESCRIPTOR,
                  ProtoMessage().add(1, LOSS_TRACK).add(2, "tesubpf: not recorded"));
    }
    ProtoMessage event;
    event.add(9, type).add(11, LOSS_TRACK);
    if (!what.empty()) {
        event.add(23, what);
    }
    addPacketAt(time, Packet::TRACK_EVENT, event);
}

void PerfettoTrace::beginGap(int64_t time, std::string_view reason) {
    addNotRecorded(time, SLICE_BEGIN, reason);
}

void PerfettoTrace::endGap(int64_t time) {
    addNotRecorded(time, SLICE_END, "");
}

void PerfettoTrace::addLoss(int64_t time, std::string_view what) {
    hasLost = true;
    addNotRecorded(time, INSTANT, what);
}

std::string PerfettoTrace::take() {
    if (!kernelEvents.empty() || hasLost) {
        std::ranges::stable_sort(kernelEvents, {}, &std::pair<int64_t, ProtoMessage>::first);
        ProtoMessage bundle;
        bundle.add(1, 0);  // the CPU, which is not known
        for (const auto& [time, event] : kernelEvents) {
            bundle.add(2, event);
        }
        if (std::exchange(hasLost, false)) {
            bundle.add(3, 1);
        }
        addPacket(Packet::FTRACE_EVENTS, bundle);
        kernelEvents.clear();
    }
    return std::exchange(packets, {});
}

}  // namespace Tesu::Bpf
