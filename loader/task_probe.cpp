// SPDX-License-Identifier: Apache-2.0
#include "loader/task_probe.h"

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

// The offsets at which `holds` is true for every sample.
Offsets FindEverywhere(const std::vector<TaskSample>& samples, Range range,
                       const std::function<bool(const TaskSample&, uint32_t)>& holds) {
    Offsets found;
    for (uint32_t offset = range.begin; offset < range.end; offset += range.step) {
        bool everywhere = true;
        for (const TaskSample& sample : samples) {
            everywhere = everywhere && holds(sample, offset);
        }
        if (everywhere) {
            found.push_back(offset);
        }
    }
    return found;
}

bool TakeOnly(const Offsets& found, const char* member, uint32_t* offset, std::string* error) {
    if (found.size() != 1) {
        *error = std::string(member) + ": " + std::to_string(found.size()) + " places match";
        return false;
    }
    *offset = found[0];
    return true;
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

}  // namespace

bool FindMembersInSamples(const std::vector<TaskSample>& samples, const ReadKernelMemory& read,
                          TesuKernelLayout* layout, std::string* error) {
    const uint32_t pointerSize = layout->pointerSize;
    uint32_t size = UINT32_MAX;
    for (const TaskSample& sample : samples) {
        size = std::min<uint32_t>(size, sample.bytes.size());
    }
    const Range words = {0, size, sizeof(uint32_t)};

    // pid (the thread id) and tgid (the process id) stand together.
    uint32_t tidOffset = 0;
    const Offsets ids = FindEverywhere(samples, words, [](const auto& sample, uint32_t offset) {
        return HoldsPair(sample.bytes, offset, sample.tid, sample.pid);
    });
    if (!TakeOnly(ids, "task_struct.pid", &tidOffset, error)) {
        return false;
    }
    layout->taskTgid = tidOffset + sizeof(int32_t);

    const Offsets comms = FindEverywhere(samples, words, [](const auto& sample, uint32_t offset) {
        const size_t length = sample.comm.size() + 1;
        return sample.bytes.size() - offset >= length &&
               std::memcmp(sample.bytes.data() + offset, sample.comm.c_str(), length) == 0;
    });
    if (!TakeOnly(comms, "task_struct.comm", &layout->taskComm, error)) {
        return false;
    }

    // Whether the pointer at `offset` leads to a task of that process; `leader`: to its first
    // thread.
    const auto leadsTo = [&](const TaskSample& sample, uint32_t offset, int32_t pid, bool leader) {
        const uint64_t task = LoadPointer(sample.bytes, offset, pointerSize);
        if (task == 0) {
            return false;
        }
        const std::vector<uint8_t> pair = read(task + tidOffset, 2 * sizeof(int32_t));
        return Load<int32_t>(pair, sizeof(int32_t)) == pid &&
               (!leader || Load<int32_t>(pair, 0) == pid);
    };

    // real_parent, and behind it parent, which is the same unless somebody traces the task.
    Offsets parents =
        FindEverywhere(samples, WordsBehind(layout->taskTgid, PARENT_WINDOW, pointerSize),
                       [&](const TaskSample& sample, uint32_t offset) {
                           return leadsTo(sample, offset, sample.parentPid, false);
                       });
    if (parents.size() == 2 && parents[1] == parents[0] + pointerSize) {
        parents.pop_back();
    }
    if (!TakeOnly(parents, "task_struct.real_parent", &layout->taskRealParent, error)) {
        return false;
    }

    const Offsets leaders =
        FindEverywhere(samples, WordsBehind(layout->taskTgid, LEADER_WINDOW, pointerSize),
                       [&](const TaskSample& sample, uint32_t offset) {
                           return leadsTo(sample, offset, sample.pid, true);
                       });
    if (!TakeOnly(leaders, "task_struct.group_leader", &layout->taskGroupLeader, error)) {
        return false;
    }

    const Offsets signals = FindEverywhere(
        samples, WordsBehind(layout->taskComm, SIGNAL_WINDOW, pointerSize),
        [&](const TaskSample& sample, uint32_t offset) {
            const uint64_t signal = LoadPointer(sample.bytes, offset, pointerSize);
            return signal != 0 && HoldsPair(read(signal, SIGNAL_THREADS + sizeof(int32_t)),
                                            SIGNAL_LIVE, sample.threads, sample.threads);
        });
    if (!TakeOnly(signals, "task_struct.signal", &layout->taskSignal, error)) {
        return false;
    }
    layout->signalLive = SIGNAL_LIVE;

    const Offsets flags = FindEverywhere(
        samples, {0, tidOffset, sizeof(uint32_t)}, [](const auto& sample, uint32_t offset) {
            return Load<uint32_t>(sample.bytes, offset) == sample.flags;
        });
    std::string ignored;
    TakeOnly(flags, "task_struct.flags", &layout->taskFlags, &ignored);
    return true;
}

}  // namespace Tesu::Bpf
