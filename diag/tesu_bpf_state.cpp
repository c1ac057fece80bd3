// SPDX-License-Identifier: Apache-2.0
#include "diag/tesu_bpf_state.h"

#include <android-base/properties.h>

#include <algorithm>
#include <vector>

#include "records/contract.h"
#include "util/dump_file.h"
#include "util/log.h"
#include "util/singleton.h"
#include "util/string_util.h"

namespace Tesu::Bpf {

namespace {

constexpr const char* COLUMNS =
    "EventCount, tesu_task_init, kmem_rss_info, sched_task_create, sched_task_exit, "
    "dmabuf_size_info, cgroup_attach_cpuset_info, fd_update_info, PollCount, ";
constexpr uint32_t POLL_KIND = 7;

// Sums wrap, as the counters do.
std::string FormatRow(const StateRow& row) {
    uint32_t records = 0;
    for (uint32_t kind = 0; kind < POLL_KIND; ++kind) {
        records += static_cast<uint32_t>(row[kind]);
    }
    std::string text = StringPrintf("%d, ", static_cast<int32_t>(records));
    for (const int32_t count : row) {
        text += StringPrintf("%d, ", count);
    }
    return text + "\r\n";
}

// Both running numbers in one 64-bit number; the second number is always 0.
std::string FormatHeader(uint32_t headIndex, uint32_t tailIndex) {
    const uint64_t both = (uint64_t{tailIndex} << 32) + headIndex;
    return COLUMNS + StringPrintf("%lld, 0 \r\n", static_cast<long long>(both));
}

}  // namespace

const std::string TesuBpfDataState::TESUTASK_DUMP_PATH = DUMP_DIR;
const std::string TesuBpfDataState::TESUTASK_DUMP_TEMPLATE =
    TESUTASK_DUMP_PATH + "/" + STATE_DUMP_FILE;

Mutex TesuBpfDataState::creationLock;
std::atomic<TesuBpfDataState*> TesuBpfDataState::instance{nullptr};

TesuBpfDataState::TesuBpfDataState(Clock clock)
    : lastSecond(static_cast<int64_t>(clock())), clock(clock) {}

TesuBpfDataState* TesuBpfDataState::GetInstance() {
    return GetOrMake(instance, creationLock, [] { return new TesuBpfDataState(); });
}

// A thread that is held up between reading the head and adding counts into a second that has since
// passed, which is no loss. The head is read with acquire, so that the add comes after the slot was
// emptied.
void TesuBpfDataState::RecordEvent(int kind, int count) {
    if (static_cast<uint32_t>(kind) >= STATE_KIND_COUNT) {
        return;
    }
    if (static_cast<int64_t>(clock()) != lastSecond.load(std::memory_order_acquire)) {
        enterSecond();
    }
    const uint32_t head = headIndex.load(std::memory_order_acquire);
    slots[head % STATE_SLOT_COUNT][static_cast<uint32_t>(kind)].fetch_add(
        count, std::memory_order_relaxed);
}

// What the caller read of the clock may be old by the time it gets here, and taking it for a clock
// set back would empty slots twice: the reading under the lock decides.
void TesuBpfDataState::enterSecond() {
    MutexLock lock(rollLock);
    const auto now = static_cast<int64_t>(clock());
    const int64_t last = lastSecond.load(std::memory_order_relaxed);
    const auto delta =
        static_cast<int32_t>(static_cast<uint32_t>(now) - static_cast<uint32_t>(last));
    const uint32_t head = headIndex.load(std::memory_order_relaxed) + static_cast<uint32_t>(delta);
    if (head - tailIndex.load(std::memory_order_relaxed) >= STATE_SLOT_COUNT) {
        tailIndex.store(head - (STATE_SLOT_COUNT - 1), std::memory_order_relaxed);
    }
    const uint32_t entered =
        delta > 0 ? std::min(static_cast<uint32_t>(delta), STATE_SLOT_COUNT) : 0;
    for (uint32_t back = 0; back < entered; ++back) {
        for (std::atomic<int32_t>& counter : slots[(head - back) % STATE_SLOT_COUNT]) {
            counter.store(0, std::memory_order_relaxed);
        }
    }
    headIndex.store(head, std::memory_order_release);
    lastSecond.store(now, std::memory_order_release);
}

void TesuBpfDataState::DumpState() {
    uint32_t head = 0;
    uint32_t tail = 0;
    std::vector<StateRow> rows;
    {
        MutexLock lock(rollLock);
        head = headIndex.load(std::memory_order_relaxed);
        tail = tailIndex.load(std::memory_order_relaxed);
        const uint32_t count = head < tail ? 0 : std::min(head - tail, STATE_SLOT_COUNT - 1) + 1;
        rows.resize(count);
        for (uint32_t back = 0; back < count; ++back) {
            const Slot& slot = slots[(head - back) % STATE_SLOT_COUNT];
            std::transform(slot.begin(), slot.end(), rows[back].begin(), [](const auto& counter) {
                return counter.load(std::memory_order_relaxed);
            });
        }
    }
    std::string text = FormatHeader(head, tail);
    for (const StateRow& row : rows) {
        text += FormatRow(row);
    }
    const std::string folder = android::base::GetProperty(DUMP_DIR_PROPERTY, TESUTASK_DUMP_PATH);
    if (!ReplaceDumpFile(folder + "/" + STATE_DUMP_FILE, text)) {
        TESU_LOGE(TESU_LOG_UTILS, "[TesuBpfDataState][DumpState] open file failed!");
    }
}

void DumpState(int /*signal*/) {
    TesuBpfDataState::GetInstance()->DumpState();
}

}  // namespace Tesu::Bpf
