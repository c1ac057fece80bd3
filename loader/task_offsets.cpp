// SPDX-License-Identifier: Apache-2.0
#include "loader/task_offsets.h"

#include <algorithm>
#include <cstring>

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

struct Range {
    uint32_t begin;
    uint32_t end;
    uint32_t step;
};

using Offsets = std::vector<uint32_t>;
using Samples = std::vector<TaskSample>;

// The offsets at which `holds` is true for every sample.
Offsets FindEverywhere(const Samples& samples, Range range,
                       const std::function<bool(const TaskSample&, uint32_t)>& holds) {
    Offsets found;
    for (uint32_t offset = range.begin; offset < range.end; offset += range.step) {
        if (std::all_of(samples.begin(), samples.end(),
                        [&](const TaskSample& sample) { return holds(sample, offset); })) {
            found.push_back(offset);
        }
    }
    return found;
}

// Two 4-byte numbers, `second` right behind `first`.
bool HoldsPair(const std::vector<uint8_t>& bytes, uint32_t offset, int32_t first, int32_t second) {
    return Load<int32_t>(bytes, offset) == first &&
           Load<int32_t>(bytes, offset + sizeof(int32_t)) == second;
}

// The 4-byte words that all samples have, from `begin` on.
Range WordsFrom(uint32_t begin, const Samples& samples) {
    uint32_t end = UINT32_MAX;
    for (const TaskSample& sample : samples) {
        end = std::min<uint32_t>(end, sample.bytes.size());
    }
    return {begin, end, sizeof(uint32_t)};
}

// The offsets of pointers, among so many words of the kernel behind a member, to what `holds`.
Offsets FindPointers(const Samples& samples, uint32_t member, uint32_t words, uint32_t pointerSize,
                     const std::function<bool(const TaskSample&, uint64_t target)>& holds) {
    const uint32_t begin = (member + pointerSize) / pointerSize * pointerSize;
    return FindEverywhere(samples, {begin, begin + words * pointerSize, pointerSize},
                          [&](const TaskSample& sample, uint32_t offset) {
                              const auto target = LoadPointer(sample.bytes, offset, pointerSize);
                              return target != 0 && holds(sample, target);
                          });
}

// pid (the thread id) and tgid (the process id) stand together.
Offsets FindTgid(const Samples& samples, const ReadKernelMemory& /*read*/,
                 const TesuKernelLayout& /*layout*/) {
    return FindEverywhere(samples, WordsFrom(sizeof(int32_t), samples),
                          [](const TaskSample& sample, uint32_t offset) {
                              return HoldsPair(sample.bytes, offset - sizeof(int32_t), sample.tid,
                                               sample.pid);
                          });
}

Offsets FindComm(const Samples& samples, const ReadKernelMemory& /*read*/,
                 const TesuKernelLayout& /*layout*/) {
    return FindEverywhere(
        samples, WordsFrom(0, samples), [](const TaskSample& sample, uint32_t offset) {
            const size_t length = sample.comm.size() + 1;
            return sample.bytes.size() - offset >= length &&
                   std::memcmp(sample.bytes.data() + offset, sample.comm.c_str(), length) == 0;
        });
}

// Pointers to a task of the parent. Behind real_parent stands parent, which is the same unless
// somebody traces the task: then the first of the two counts.
Offsets FindRealParent(const Samples& samples, const ReadKernelMemory& read,
                       const TesuKernelLayout& layout) {
    const uint32_t size = layout.pointerSize;
    Offsets parents =
        FindPointers(samples, layout.taskTgid, PARENT_WINDOW, size,
                     [&](const TaskSample& sample, uint64_t task) {
                         return Load<int32_t>(read(task + layout.taskTgid, sizeof(int32_t)), 0) ==
                                sample.parentPid;
                     });
    if (parents.size() == 2 && parents[1] == parents[0] + size) {
        parents.pop_back();
    }
    return parents;
}

// Pointers to the first thread of the process.
Offsets FindLeader(const Samples& samples, const ReadKernelMemory& read,
                   const TesuKernelLayout& layout) {
    const uint32_t tidOffset = layout.taskTgid - sizeof(int32_t);
    return FindPointers(samples, layout.taskTgid, LEADER_WINDOW, layout.pointerSize,
                        [&](const TaskSample& sample, uint64_t task) {
                            return HoldsPair(read(task + tidOffset, 2 * sizeof(int32_t)), 0,
                                             sample.pid, sample.pid);
                        });
}

Offsets FindSignal(const Samples& samples, const ReadKernelMemory& read,
                   const TesuKernelLayout& layout) {
    return FindPointers(samples, layout.taskComm, SIGNAL_WINDOW, layout.pointerSize,
                        [&](const TaskSample& sample, uint64_t signal) {
                            return HoldsPair(read(signal, SIGNAL_THREADS + sizeof(int32_t)),
                                             SIGNAL_LIVE, sample.threads, sample.threads);
                        });
}

// In the order in which they are found: a member is looked for by those above it.
constexpr struct {
    const char* name;
    uint32_t TesuKernelLayout::*offset;
    Offsets (*find)(const Samples&, const ReadKernelMemory&, const TesuKernelLayout&);
} MEMBERS[] = {
    {"task_struct.pid", &TesuKernelLayout::taskTgid, FindTgid},
    {"task_struct.comm", &TesuKernelLayout::taskComm, FindComm},
    {"task_struct.real_parent", &TesuKernelLayout::taskRealParent, FindRealParent},
    {"task_struct.group_leader", &TesuKernelLayout::taskGroupLeader, FindLeader},
    {"task_struct.signal", &TesuKernelLayout::taskSignal, FindSignal},
};

}  // namespace

Result<> GuessTaskOffsets(const std::vector<TaskSample>& samples, const ReadKernelMemory& read,
                          TesuKernelLayout* layout) {
    for (const auto& member : MEMBERS) {
        const Offsets found = member.find(samples, read, *layout);
        if (found.size() != 1) {
            return Failure(std::string(member.name) + ": " + std::to_string(found.size()) +
                           " places match");
        }
        layout->*member.offset = found[0];
    }
    layout->signalLive = SIGNAL_LIVE;
    const Range words = {0, layout->taskTgid - uint32_t{sizeof(int32_t)}, sizeof(uint32_t)};
    const Offsets flags =
        FindEverywhere(samples, words, [](const TaskSample& sample, uint32_t offset) {
            return Load<uint32_t>(sample.bytes, offset) == sample.flags;
        });
    if (flags.size() == 1) {
        layout->taskFlags = flags[0];
    }
    return {};
}

}  // namespace Tesu::Bpf
