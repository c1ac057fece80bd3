// SPDX-License-Identifier: Apache-2.0
//
// The picture of the processes: what events and /proc make of it, in every order of the two; and
// the full screen that shows it, exactly as wide as asked at every size, and what it is to be.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <wchar.h>

#include <array>
#include <clocale>
#include <string>
#include <vector>

#include "client/top/columns.h"
#include "client/top/frame.h"
#include "model/process_model.h"
#include "tests/support/golden.h"
#include "tests/support/records.h"
#include "util/string_util.h"

namespace Tesu::Bpf {
namespace {

using testing::ElementsAre;

constexpr int64_t SECOND = 1'000'000'000;
constexpr int64_t START = 100 * SECOND;
constexpr int64_t READ = START + 10 * SECOND;
constexpr int64_t MIB = 1 << 20;

ProcessSnapshot Found(int32_t pid, int64_t readTime = READ, const std::string& name = "found",
                      int32_t threads = 4, int64_t startTime = START, bool isEnding = false) {
    return {pid, 1, 0, name, false, isEnding, threads, {0, 10 * MIB}, 5, startTime, readTime};
}

// Of threads of process 7.
RawTaskCreateEvent Began(int64_t time) {
    return Create(time, 7, 7, "", RAW_TASK_THREAD);
}
RawTaskExitEvent Ended(int64_t time) {
    return Exit(time, 7, "", RAW_TASK_THREAD);
}
RawFdUpdateEvent Fds(int64_t time, int32_t openFds) {
    return {Header(RAW_EVENT_FD_UPDATE, time), 7, 0, openFds, 0, ""};
}

// What /proc and events give returns the table by pid: "pid name threads/descriptors/resident MiB".
class ProcessModelTest : public testing::Test {
  protected:
    std::string proc(int64_t begin, const std::vector<ProcessSnapshot>& processes) {
        model.mergeProc(begin, processes);
        return events();
    }
    template <class... Events>
    std::string events(const Events&... events) {
        (model.apply(events), ...);
        std::string text;
        for (const ProcessRow& row : model.view({}).rows) {
            text += StringPrintf("%d %s %d/%lld/%lld ", row.pid, row.name.c_str(), row.threads,
                                 row.openFds.value_or(-1) + 0LL, row.resident / MIB + 0LL);
        }
        return text;
    }

    ProcessModel model;
};

TEST_F(ProcessModelTest, TakesOfEachValueTheNewer) {
    proc(READ, {Found(7)});
    EXPECT_EQ(events(Rss(READ - 1, 7, RSS_ANON, 2 * MIB), Fds(READ - 1, 1)), "7 found 4/5/10 ");
    events(Rss(READ + 1, 7, RSS_ANON, 30 * MIB), Rss(READ + 1, 7, RSS_FILE, 2 * MIB),
           Rss(READ + 1, 7, RSS_SWAP, 2 * MIB), Fds(READ + 1, 90));
    EXPECT_EQ(proc(READ, {Found(7)}), "7 found 4/90/32 ");
    EXPECT_EQ(proc(READ, {Found(7, READ + 2)}), "7 found 4/5/10 ");
    // Nonsense, and what belongs to nobody.
    EXPECT_EQ(events(Rss(READ + 3, 7, RSS_MEMBER_COUNT, MIB), Rss(READ + 3, 7, RSS_ANON, INT64_MAX),
                     Rss(INT64_MAX, 7, RSS_ANON, MIB), Rss(READ + 3, 8, RSS_ANON, MIB)),
              "7 found 4/5/10 ");
}

TEST_F(ProcessModelTest, CountsAThreadOnceWhoeverReportedItFirst) {
    proc(READ, {Found(7)});
    EXPECT_EQ(events(Began(READ - 1)), "7 found 4/5/10 ");
    events(Began(READ + 1), Began(READ + 2), Began(READ + 3), Ended(READ + 4));
    EXPECT_EQ(proc(READ, {Found(7)}), "7 found 6/5/10 ");
    // Whether /proc counted a thread that ended just before is not known: it is asked again.
    proc(READ + SECOND, {Found(7, READ + SECOND)});
    EXPECT_EQ(events(Ended(READ + SECOND - 1)), "7 found 4/5/10 ");
    EXPECT_THAT(model.takeRefreshes(READ + 2 * SECOND, 9), ElementsAre(7));
    model.refresh(7, Found(7, READ + 2 * SECOND, "found", 3));
    EXPECT_EQ(events(), "7 found 3/5/10 ");
}

TEST_F(ProcessModelTest, KeepsProcessesOfOneNumberApart) {
    proc(READ, {Found(7)});
    // A fork that /proc had shown already, and the exit of an earlier process.
    EXPECT_EQ(events(Create(START + SECOND / 100, 1, 7, "fork"), Exit(START - SECOND, 7, "")),
              "7 found 4/5/10 ");
    // The number comes again, the exit between was lost; what was read before comes late.
    events(Create(READ + SECOND, 1, 7, "fork"));
    model.refresh(7, Found(7));
    EXPECT_EQ(proc(READ, {Found(7)}), "7 fork 1/-1/0 ");
    EXPECT_EQ(proc(READ + 3 * SECOND, {Found(7, READ, "third", 4, READ + 2 * SECOND)}),
              "7 third 4/5/10 ");
    EXPECT_EQ(events(Exit(READ + 3 * SECOND / 2, 7, "")), "7 third 4/5/10 ");
    EXPECT_EQ(events(Exit(READ + 4 * SECOND, 7, "")), "");
}

TEST_F(ProcessModelTest, FollowsProcThroughStartsAndEnds) {
    proc(READ - SECOND, {Found(6, READ - SECOND), Found(7, READ - SECOND)});
    events(Create(READ + 1, 1, 8, "fork"));
    // 6 has gone unseen, 8 was forked when its place had been passed, 10 lost its main thread only.
    EXPECT_EQ(proc(READ, {Found(7), Found(9, READ, "zombie", 1, START, true),
                          Found(10, READ, "found", 4, START, true)}),
              "7 found 4/5/10 8 fork 1/-1/0 10 found 4/5/10 ");
    EXPECT_THAT(model.takeRefreshes(READ + 2 * SECOND, 9), testing::UnorderedElementsAre(8, 10));
    model.refresh(8, std::nullopt);  // its exit record is on its way
    model.refresh(10, std::nullopt);
    // 11 came and went between two subscriptions, to creates first.
    EXPECT_EQ(events(Create(READ - 1, 1, 11, "gone")), "7 found 4/5/10 8 fork 1/-1/0 ");
}

TEST_F(ProcessModelTest, ReadsProcAgainAfterALossAndShowsIt) {
    proc(READ, {Found(7)});
    for (const int64_t time : {READ, READ + 2 * SECOND}) {
        events(RecordsLostNotification{{NOTIFICATION_RECORDS_LOST, 0, time}, 1, 0, 20, 99});
    }
    EXPECT_FALSE(model.wantsProc(READ + 2 * SECOND));
    EXPECT_TRUE(model.wantsProc(READ + 4 * SECOND)) << "losses that go on put it off";
    for (const int64_t time : {READ + 6 * SECOND, READ + 8 * SECOND}) {
        model.advanceTo(time);
        EXPECT_EQ(model.view({}).totals.recordsLost, 40U);
        EXPECT_EQ(model.view({}).totals.isLosing, time < READ + 7 * SECOND);
    }
}

TEST_F(ProcessModelTest, RefreshesAForkedProcessUntilItHasItsOwnName) {
    const auto& delays = ProcessModel::REFRESH_DELAYS;
    events(Create(START, 1, 6, "fork"), Create(START, 1, 7, "fork"));
    EXPECT_THAT(model.takeRefreshes(START + delays[0] - 1, 9), ElementsAre());
    EXPECT_THAT(model.takeRefreshes(START + delays[0], 9), testing::UnorderedElementsAre(6, 7));
    events(Rss(START + 5 * SECOND, 7, RSS_ANON, 3 * MIB));
    model.refresh(7, Found(7, START + delays[0], "own"));
    model.refresh(6, Found(6, START + delays[0], "fork"));
    EXPECT_EQ(events(), "6 fork 1/5/10 7 own 1/5/3 ");
    EXPECT_THAT(model.takeRefreshes(START + delays[1], 9), ElementsAre(6));
}

TEST_F(ProcessModelTest, SortsAndFilters) {
    std::vector<ProcessSnapshot> found = {
        Found(1, READ, "odd"),    Found(2, READ, "Even"),
        Found(3, READ, "odd"),    Found(4, READ, "Even"),
        Found(5, READ, "odd", 9), Found(6, READ, "Even", 4, START - SECOND)};
    found[3].openFds.reset();
    found[5].isKernelThread = true;
    proc(READ, found);
    model.advanceTo(READ + SECOND);
    events(Rss(READ + SECOND, 4, RSS_ANON, 12 * MIB), Rss(READ + SECOND, 2, RSS_ANON, 9 * MIB));
    const auto order = [this](const ViewRequest& request) {
        std::string pids;
        for (const ProcessRow& row : model.view(request).rows) {
            pids += std::to_string(row.pid);
        }
        return pids + " ";
    };
    // Equal ones by number, whichever way round.
    std::string orders;
    for (const Column* const column : OrderColumns()) {
        orders += column->order.name + (" " + order({.order = column->order.compare})) +
                  order({.order = column->order.compare, .isReversed = true});
    }
    EXPECT_EQ(orders,
              "memory 413562 213564 change 413562 213564 threads 512346 123465 fds 123564 412356 "
              "age 123456 612345 pid 123456 654321 name 246135 135246 ");
    EXPECT_EQ(order({.withKernelThreads = false, .filter = "eVE"}), "24 ");
}

std::string Text(const StyledLine& line) {
    std::string text;
    for (const Span& span : line) {
        text += span.text;
    }
    return text;
}

// Cells that a terminal needs for the text; -1 when it holds what is none of its own.
int Width(const std::string& text) {
    std::vector<wchar_t> characters(text.size() + 1);
    const size_t count = mbstowcs(characters.data(), text.c_str(), characters.size());
    return count > text.size() ? -1 : wcswidth(characters.data(), count);
}

// Ordinary processes, and some that are hostile in name and figures.
ProcessView View() {
    constexpr int64_t MAX = INT64_MAX;
    const std::vector<uint32_t> rising = {0, 100, 200, 300, 400, 500, 600, 700};
    const std::array<int64_t, RSS_MEMBER_COUNT> sizes = {8 * MIB, 12 * MIB, 3 * MIB, 0};
    ProcessView view;
    // clang-format off
    view.rows = {
        {4711, 1, 0, "media", false, 12, 34, sizes, 20 * MIB, 4 * MIB, 125 * SECOND, rising, true, 0, 0},
        {INT32_MIN, INT32_MIN, INT32_MIN, "\x1b[2J\x07", false, INT32_MIN, INT64_MIN, {MAX, MAX, MAX, MAX},
         INT64_MIN, INT64_MIN, MAX, {0, UINT32_MAX, 5}, true, MAX, UINT32_MAX},
    };
    // clang-format on
    for (const char* const name : {"a\nb", "\xff", "漢字漢字漢", "e\u0301", "\u202e🚀", ""}) {
        view.rows.push_back(
            {7, 1, 0, name, false, 1, 5, sizes, MIB, 0, 7259 * SECOND, rising, false, 0, 12});
        view.loops.push_back({name, 12, 125 * SECOND});
    }
    view.totals = {7, 2, 99, 1.4, 2.6, 1e18, 1234, true};
    view.matching = 99;
    return view;
}

TEST(TopFrame, FillsExactlyTheScreenAtAnySizeWhateverTheNames) {
    std::setlocale(LC_CTYPE, "C.UTF-8");
    FrameState state;
    state.request.filter = "漢\x1b";
    for (const bool isHelp : {false, true}) {
        state.isHelpShown = isHelp;
        for (size_t width = 1; width <= 220; ++width) {
            for (const size_t height : {1, 2, 9, 24}) {
                const std::vector<StyledLine> lines = MakeFrame(View(), state, width, height);
                ASSERT_LE(lines.size(), height);
                for (const StyledLine& line : lines) {
                    ASSERT_EQ(Width(Text(line)), static_cast<int>(width)) << Text(line);
                }
            }
        }
    }
}

TEST(TopFrame, LooksAsItDid) {
    std::setlocale(LC_CTYPE, "C.UTF-8");
    FrameState state;
    state.request.order = OrderColumns().front()->order.compare;
    state.connection = TESUBPF_LOST;
    std::string text;
    for (const size_t width : {80, 220}) {
        for (const StyledLine& line : MakeFrame(View(), state, width, 17)) {
            text += Text(line) + "|\n";
        }
    }
    std::setlocale(LC_CTYPE, "C");
    ExpectGolden("top.golden", text + MakePlainText(View(), state, 140));
}

}  // namespace
}  // namespace Tesu::Bpf
