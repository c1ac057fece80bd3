// SPDX-License-Identifier: Apache-2.0
//
// The counters of each second and their file, under a clock of the test's.
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <barrier>
#include <iterator>
#include <numeric>
#include <random>
#include <sstream>
#include <string>
#include <thread>

#include "diag/tesu_bpf_state.h"
#include "tests/support/sandbox.h"
#include "tests/support/temp_dir.h"

namespace Tesu::Bpf {
namespace {

class CountersTest : public SandboxTest {
  protected:
    static unsigned long long readSecond() {
        const unsigned long long read = second;
        std::this_thread::yield();  // lets others pass the one that has read
        return read;
    }
    static std::string dump(TesuBpfDataState& state) {
        state.DumpState();
        return ReadWholeFile(TesuBpfDataState::TESUTASK_DUMP_TEMPLATE);
    }
    static inline std::atomic<unsigned long long> second{1000};
};

TEST_F(CountersTest, ARowPerSecondWhateverTheClockDoes) {
    constexpr int STEPS[] = {0, 1, 1, 2, 300, 1799, 1800, 1801, 1700000000, -1, -2, -90};
    std::mt19937_64 random(1);
    for (int round = 0; round < 40; ++round) {
        TesuBpfDataState state(readSecond);
        // Seconds have running numbers, of which a ring of slots holds the last.
        std::array<StateRow, STATE_SLOT_COUNT> slots{};
        uint32_t head = 0;
        uint32_t tail = 0;
        for (int i = 0; i < 100; ++i) {
            state.RecordEvent(i % 2 == 0 ? 8 : -1, 1);
            const int step = STEPS[random() % (round % 2 == 0 ? 5 : std::size(STEPS))];
            second += static_cast<uint64_t>(step);
            head += static_cast<uint32_t>(step);
            for (int back = 0; back < std::min(step, 1800); ++back) {
                slots[(head - static_cast<uint32_t>(back)) % 1800].fill(0);
            }
            tail = head - tail < 1800 ? tail : head - 1799;
            const size_t kind = random() % 8;
            const int count = static_cast<int>(random() % 1000) - 300;
            slots[head % 1800][kind] += count;
            state.RecordEvent(static_cast<int>(kind), count);
        }
        std::ostringstream csv;
        csv << "EventCount, tesu_task_init, kmem_rss_info, sched_task_create, sched_task_exit, "
               "dmabuf_size_info, cgroup_attach_cpuset_info, fd_update_info, PollCount, "
            << static_cast<int64_t>(uint64_t{tail} << 32 | head) << ", 0 \r\n";
        for (int64_t number = head; number >= tail; --number) {
            const StateRow& row = slots[static_cast<size_t>(number) % 1800];
            csv << std::accumulate(row.begin(), row.end() - 1, 0) << ", ";
            std::ranges::copy(row, std::ostream_iterator<int>(csv, ", "));
            csv << "\r\n";
        }
        ASSERT_EQ(dump(state), csv.str());
    }
}

// Writers enter every new second together, some with an old reading of the clock, while it is
// dumped too.
TEST_F(CountersTest, NoCountIsLostBetweenThreads) {
    for (int round = 0; round < 20; ++round) {
        constexpr int COUNTS = 3400;
        TesuBpfDataState state(readSecond);
        std::barrier together(2, []() noexcept { second += 100; });
        const auto count = [&] {
            for (int i = 0; i < COUNTS; ++i, state.RecordEvent(2, 1)) {
                if (i % 200 == 0) {
                    together.arrive_and_wait();
                }
            }
        };
        {
            const std::jthread writers[] = {std::jthread(count), std::jthread(count)};
            dump(state);
        }
        std::istringstream csv(dump(state));
        int sum = 0;
        for (std::string line; std::getline(csv, line);) {
            sum += std::atoi(line.c_str());  // the first has names
        }
        ASSERT_EQ(sum, 2 * COUNTS);
    }
}

}  // namespace
}  // namespace Tesu::Bpf
