// SPDX-License-Identifier: Apache-2.0
#include "loader/task_offsets.h"

#include <algorithm>
#include <cstring>

#include "bpf/kernel_memory.h"
#include "loader/kernel_bytes.h"

namespace Tesu::Bpf {

namespace {

// How far behind a known member its neighbours can be, in words of the kernel: the family pointers
// stand behind the ids, the signal pointer behind the name.
constexpr uint32_t PARENT_WINDOW = 8;
constexpr uint32_t LEADER_WINDOW = 20;
constexpr uint32_t SIGNAL_WINDOW = 32;

// signal_struct begins with three 4-byte counters: references, live threads, all threads.
constexpr uint32_t SIGNAL_LIVE = 4;
constexpr uint32_t SIGNAL_THREADS = 8;

using Offsets = std::vector<uint32_t>;

// Two 4-byte numbers, `second` right behind `first`.
bool HoldsPair(const std::vector<uint8_t>& bytes, uint32_t offset, int32_t first, int32_t second) {
    return Load<int32_t>(bytes, offset) == first &&
           Load<int32_t>(bytes, offset + sizeof(int32_t)) == second;
}

// Looks in the samples, for some members with the help of those that `layout` has already. What is
// found are all places that match.
struct MemberSearch {
    const std::vector<TaskSample>& samples;
    const ReadKernelMemory& read;
    const TesuKernelLayout& layout;

    // The offsets at which `holds` is true for every sample.
    Offsets findEverywhere(uint32_t begin, uint32_t end, uint32_t step,
                           const std::function<bool(const TaskSample&, uint32_t)>& holds) const {
        Offsets found;
        for (uint32_t offset = begin; offset < end; offset += step) {
            if (std::all_of(samples.begin(), samples.end(),
                            [&](const TaskSample& sample) { return holds(sample, offset); })) {
                found.push_back(offset);
            }
        }
        return found;
    }

    // The offsets of pointers, among so many words of the kernel behind a member, to what `holds`.
    Offsets findPointers(
        uint32_t member, uint32_t words,
        const std::function<bool(const TaskSample&, uint64_t target)>& holds) const {
        const uint32_t size = layout.pointerSize;
        const uint32_t begin = (member + size) / size * size;
        return findEverywhere(begin, begin + words * size, size,
                              [&](const TaskSample& sample, uint32_t offset) {
                                  const auto target = LoadPointer(sample.bytes, offset, size);
                                  return target != 0 && holds(sample, target);
                              });
    }

    // pid (the thread id) and tgid (the process id) stand together.
    Offsets findTgid() const {
        return findEverywhere(sizeof(int32_t), KERNEL_MEMORY_BYTES, sizeof(int32_t),
                              [](const TaskSample& sample, uint32_t offset) {
                                  return HoldsPair(sample.bytes, offset - sizeof(int32_t),
                                                   sample.tid, sample.pid);
                              });
    }

    Offsets findComm() const {
        return findEverywhere(0, KERNEL_MEMORY_BYTES, sizeof(uint32_t),
                              [](const TaskSample& sample, uint32_t offset) {
                                  const size_t length = sample.comm.size() + 1;
                                  return offset + length <= sample.bytes.size() &&
                                         std::memcmp(sample.bytes.data() + offset,
                                                     sample.comm.c_str(), length) == 0;
                              });
    }

    // Pointers to a task of the parent. Behind real_parent stands parent, which is the same unless
    // somebody traces the task: then the first of the two counts.
    Offsets findRealParent() const {
        Offsets parents = findPointers(
            layout.taskTgid, PARENT_WINDOW, [&](const TaskSample& sample, uint64_t task) {
                return Load<int32_t>(read(task + layout.taskTgid, sizeof(int32_t)), 0) ==
                       sample.parentPid;
            });
        if (parents.size() == 2 && parents[1] == parents[0] + layout.pointerSize) {
            parents.pop_back();
        }
        return parents;
    }

    // Pointers to the first thread of the process.
    Offsets findLeader() const {
        const uint32_t tidOffset = layout.taskTgid - sizeof(int32_t);
        return findPointers(layout.taskTgid, LEADER_WINDOW,
                            [&](const TaskSample& sample, uint64_t task) {
                                return HoldsPair(read(task + tidOffset, 2 * sizeof(int32_t)), 0,
                                                 sample.pid, sample.pid);
                            });
    }

    Offsets findSignal() const {
        return findPointers(layout.taskComm, SIGNAL_WINDOW,
                            [&](const TaskSample& sample, uint64_t signal) {
                                return HoldsPair(read(signal, SIGNAL_THREADS + sizeof(int32_t)),
                                                 SIGNAL_LIVE, sample.threads, sample.threads);
                            });
    }

    // The flags stand before the ids.
    Offsets findFlags() const {
        return findEverywhere(0, layout.taskTgid - sizeof(int32_t), sizeof(uint32_t),
                              [](const TaskSample& sample, uint32_t offset) {
                                  return Load<uint32_t>(sample.bytes, offset) == sample.flags;
                              });
    }
};

// In the order in which they are found: a member is looked for by those above it.
constexpr struct {
    const char* name;
    uint32_t TesuKernelLayout::*offset;
    Offsets (MemberSearch::*find)() const;
} MEMBERS[] = {
    {"task_struct.pid", &TesuKernelLayout::taskTgid, &MemberSearch::findTgid},
    {"task_struct.comm", &TesuKernelLayout::taskComm, &MemberSearch::findComm},
    {"task_struct.real_parent", &TesuKernelLayout::taskRealParent, &MemberSearch::findRealParent},
    {"task_struct.group_leader", &TesuKernelLayout::taskGroupLeader, &MemberSearch::findLeader},
    {"task_struct.signal", &TesuKernelLayout::taskSignal, &MemberSearch::findSignal},
};

}  // namespace

Result<> GuessTaskOffsets(const std::vector<TaskSample>& samples, const ReadKernelMemory& read,
                          TesuKernelLayout* layout) {
    const MemberSearch search = {samples, read, *layout};
    for (const auto& member : MEMBERS) {
        const Offsets found = (search.*member.find)();
        if (found.size() != 1) {
            return Failure(std::string(member.name) + ": " + std::to_string(found.size()) +
                           " places match");
        }
        layout->*member.offset = found[0];
    }
    layout->signalLive = SIGNAL_LIVE;
    const Offsets flags = search.findFlags();
    if (flags.size() == 1) {
        layout->taskFlags = flags[0];
    }
    return {};
}

}  // namespace Tesu::Bpf
