// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <limits>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "diag/tesu_bpf_state.h"
#include "tests/support/temp_dir.h"

namespace Tesu::Bpf {
namespace {

using testing::ElementsAre;

const std::string COLUMNS =
    "EventCount, tesu_task_init, kmem_rss_info, sched_task_create, sched_task_exit, "
    "dmabuf_size_info, cgroup_attach_cpuset_info, fd_update_info, PollCount, ";

class StateTest : public testing::Test {
  protected:
    // Other threads get a chance to pass the one that has read.
    static unsigned long long readSecond() {
        const unsigned long long read = second;
        if (++readings % 16 == 0) {
            std::this_thread::yield();
        }
        return read;
    }

    std::string dump() {
        state->DumpState();
        return ReadWholeFile(path);
    }
    // The numbers of each row.
    std::vector<std::vector<int64_t>> rows() {
        std::istringstream csv(dump());
        std::vector<std::vector<int64_t>> table;
        std::string line;
        std::getline(csv, line);
        while (std::getline(csv, line)) {
            std::vector<int64_t>& row = table.emplace_back();
            std::istringstream cells(line);
            std::string cell;
            while (std::getline(cells, cell, ',') && cell != " \r") {
                row.push_back(std::stoll(cell));
            }
        }
        return table;
    }
    // First column, newest second first.
    std::vector<int64_t> totals() {
        std::vector<int64_t> column;
        for (const auto& row : rows()) {
            column.push_back(row[0]);
        }
        return column;
    }
    // The two running numbers of the header's first number.
    std::pair<uint32_t, uint32_t> headAndTail() {
        const std::string text = dump();
        const auto both = std::stoull(text.substr(COLUMNS.size()));
        return {static_cast<uint32_t>(both), static_cast<uint32_t>(both >> 32)};
    }

    static inline std::atomic<unsigned long long> second{1000};
    static inline std::atomic<unsigned> readings{0};
    std::unique_ptr<TesuBpfDataState> state = std::make_unique<TesuBpfDataState>(readSecond);
    const std::string path = TesuBpfDataState::TESUTASK_DUMP_TEMPLATE;
};

TEST_F(StateTest, FileBytes) {
    EXPECT_EQ(dump(), COLUMNS + "0, 0 \r\n0, 0, 0, 0, 0, 0, 0, 0, 0, \r\n");
    state->RecordEvent(0, 1);
    state->RecordEvent(0, 1);
    state->RecordEvent(6, 30);
    second += 2;
    state->RecordEvent(3, -4);
    state->RecordEvent(7, 5);
    for (const int kind : {8, -1, std::numeric_limits<int>::min()}) {
        state->RecordEvent(kind, 1);
    }
    EXPECT_EQ(dump(), COLUMNS +
                          "2, 0 \r\n"
                          "-4, 0, 0, 0, -4, 0, 0, 0, 5, \r\n"
                          "0, 0, 0, 0, 0, 0, 0, 0, 0, \r\n"
                          "32, 2, 0, 0, 0, 0, 0, 30, 0, \r\n");
}

TEST_F(StateTest, AtMostHalfAnHourIsKept) {
    for (int i = 1; i < 1800; ++i) {
        state->RecordEvent(1, i);
        second += 1;
    }
    state->RecordEvent(1, std::numeric_limits<int32_t>::max());
    state->RecordEvent(2, 1);
    EXPECT_EQ(headAndTail(), std::pair(1799U, 0U));
    EXPECT_EQ(totals().front(), std::numeric_limits<int32_t>::min()) << "sums wrap";
    EXPECT_EQ(totals().back(), 1);
    second += 1;
    state->RecordEvent(1, 7);
    EXPECT_EQ(headAndTail(), std::pair(1800U, 1U));
    EXPECT_EQ(totals().size(), 1800U);
    EXPECT_EQ(totals().back(), 2);
}

TEST_F(StateTest, HugeJumpLeavesNothingOld) {
    for (int i = 0; i < 100; ++i) {
        state->RecordEvent(1, 9);
        second += 1;
    }
    second += 1700000000;
    state->RecordEvent(1, 5);
    EXPECT_EQ(headAndTail(), std::pair(1700000100U, 1700000100U - 1799));
    std::vector<int64_t> expected(1800);
    expected[0] = 5;
    EXPECT_EQ(totals(), expected);
}

TEST_F(StateTest, ClockSetBackMovesTheHeadAndEmptiesNothing) {
    for (int i = 0; i < 6; ++i) {
        state->RecordEvent(1, i + 1);
        second += 1;
    }
    second -= 4;
    state->RecordEvent(1, 100);
    EXPECT_THAT(totals(), ElementsAre(103, 2, 1));
    // Before the first second: the running numbers wrap, and the window with them.
    second -= 3;
    state->RecordEvent(1, 1000);
    EXPECT_EQ(headAndTail(), std::pair(UINT32_MAX, UINT32_MAX - 1799));
    EXPECT_EQ(totals().size(), 1800U);
    second += 2;
    state->RecordEvent(1, 1);
    EXPECT_THAT(totals().size(), testing::Le(1800U));
}

// Writers enter every new second together, some with an old reading of the clock, while it is
// dumped too.
TEST_F(StateTest, NoCountIsLostBetweenThreads) {
    constexpr int WRITERS = 2;
    constexpr int ROUNDS = 20;
    constexpr int COUNTS = 8 * 425;
    for (int round = 0; round < ROUNDS; ++round) {
        state = std::make_unique<TesuBpfDataState>(readSecond);
        const unsigned long long start = second;
        std::atomic<int> arrived{0};
        std::vector<std::thread> threads(WRITERS);
        for (std::thread& thread : threads) {
            thread = std::thread([&] {
                for (int i = 0; i < COUNTS; ++i) {
                    if (i % 200 == 0) {
                        const int everybody = WRITERS * (i / 200 + 1);
                        if (++arrived == everybody) {
                            second += 100;
                        }
                        while (arrived < everybody) {
                            std::this_thread::yield();
                        }
                    }
                    state->RecordEvent(i % 8, 1);
                }
            });
        }
        EXPECT_LE(totals().size(), 1800U);
        for (std::thread& thread : threads) {
            thread.join();
        }
        state->RecordEvent(0, 0);
        EXPECT_EQ(headAndTail().first, second - start);
        std::vector<int64_t> sums(9);
        for (const auto& row : rows()) {
            std::transform(row.begin(), row.end(), sums.begin(), sums.begin(), std::plus<>());
        }
        std::vector<int64_t> expected(9, WRITERS * COUNTS / 8);
        expected[0] *= 7;
        ASSERT_EQ(sums, expected);
    }
}

}  // namespace
}  // namespace Tesu::Bpf
