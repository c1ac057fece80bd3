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

Result<> TakeOnly(const Offsets& found, const char* member, uint32_t* offset) {
    if (found.size() != 1) {
        return Failure(std::string(member) + ": " + std::to_string(found.size()) + " places match");
    }
    *offset = found[0];
    return {};
}

// Two 4-byte numbers, `second` right behind `first`.
bool HoldsPair(const std::vector<uint8_t>& bytes, uint32_t offset, int32_t first, int32_t second) {
    return Load<int32_t>(bytes, offset) == first &&
           Load<int32_t>(bytes, offset + sizeof(int32_t)) == second;
}

Range WordsBehind(uint32_t offset, uint32_t words, uint32_t pointerSize) {
    const uint32_t begin = (offset + pointerSize) / pointerSize * pointerSize;
    return {begin, begin + words * pointerSize, pointerSize};
}

// pid (the thread id) and tgid (the process id) stand together.
Offsets FindIds(const Samples& samples, Range words) {
    return FindEverywhere(samples, words, [](const TaskSample& sample, uint32_t offset) {
        return HoldsPair(sample.bytes, offset, sample.tid, sample.pid);
    });
}

Offsets FindComm(const Samples& samples, Range words) {
    return FindEverywhere(samples, words, [](const TaskSample& sample, uint32_t offset) {
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
    Offsets parents = FindEverywhere(
        samples, WordsBehind(layout.taskTgid, PARENT_WINDOW, size),
        [&](const TaskSample& sample, uint32_t offset) {
            const uint64_t task = LoadPointer(sample.bytes, offset, size);
            return task != 0 && Load<int32_t>(read(task + layout.taskTgid, sizeof(int32_t)), 0) ==
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
    return FindEverywhere(
        samples, WordsBehind(layout.taskTgid, LEADER_WINDOW, layout.pointerSize),
        [&](const TaskSample& sample, uint32_t offset) {
            const uint64_t task = LoadPointer(sample.bytes, offset, layout.pointerSize);
            return task != 0 && HoldsPair(read(task + tidOffset, 2 * sizeof(int32_t)), 0,
                                          sample.pid, sample.pid);
        });
}

Offsets FindSignal(const Samples& samples, const ReadKernelMemory& read,
                   const TesuKernelLayout& layout) {
    return FindEverywhere(
        samples, WordsBehind(layout.taskComm, SIGNAL_WINDOW, layout.pointerSize),
        [&](const TaskSample& sample, uint32_t offset) {
            const uint64_t signal = LoadPointer(sample.bytes, offset, layout.pointerSize);
            return signal != 0 && HoldsPair(read(signal, SIGNAL_THREADS + sizeof(int32_t)),
                                            SIGNAL_LIVE, sample.threads, sample.threads);
        });
}

}  // namespace

Result<> GuessTaskOffsets(const std::vector<TaskSample>& samples, const ReadKernelMemory& read,
                          TesuKernelLayout* layout) {
    uint32_t size = UINT32_MAX;
    for (const TaskSample& sample : samples) {
        size = std::min<uint32_t>(size, sample.bytes.size());
    }
    const Range words = {0, size, sizeof(uint32_t)};

    uint32_t tidOffset = 0;
    auto taken = TakeOnly(FindIds(samples, words), "task_struct.pid", &tidOffset);
    if (taken) {
        layout->taskTgid = tidOffset + sizeof(int32_t);
        taken = TakeOnly(FindComm(samples, words), "task_struct.comm", &layout->taskComm);
    }
    if (taken) {
        taken = TakeOnly(FindRealParent(samples, read, *layout), "task_struct.real_parent",
                         &layout->taskRealParent);
    }
    if (taken) {
        taken = TakeOnly(FindLeader(samples, read, *layout), "task_struct.group_leader",
                         &layout->taskGroupLeader);
    }
    if (taken) {
        taken =
            TakeOnly(FindSignal(samples, read, *layout), "task_struct.signal", &layout->taskSignal);
    }
    if (!taken) {
        return taken;
    }
    layout->signalLive = SIGNAL_LIVE;
    const Offsets flags = FindEverywhere(
        samples, {0, tidOffset, sizeof(uint32_t)}, [](const TaskSample& sample, uint32_t offset) {
            return Load<uint32_t>(sample.bytes, offset) == sample.flags;
        });
    (void)TakeOnly(flags, "task_struct.flags", &layout->taskFlags);
    return {};
}

}  // namespace Tesu::Bpf
