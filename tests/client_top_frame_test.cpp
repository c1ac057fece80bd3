// SPDX-License-Identifier: Apache-2.0
//
// What the full-screen view shows: cells, columns and lines, at every size.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <wchar.h>

#include <clocale>
#include <cstdlib>
#include <string>
#include <vector>

#include "client/text/terminal_text.h"
#include "client/top/sparkline.h"
#include "client/process_model.h"
#include "client/top_frame.h"
#include "client/top_layout.h"

namespace Tesu::Bpf {
namespace {

using testing::AllOf;
using testing::Contains;
using testing::HasSubstr;
using testing::Not;

// Cells that a terminal needs for the text; none when it holds what has no width.
std::optional<size_t> Width(const std::string& text) {
    std::vector<wchar_t> characters(text.size() + 1);
    const size_t count = mbstowcs(characters.data(), text.c_str(), characters.size());
    if (count == static_cast<size_t>(-1)) {
        return std::nullopt;
    }
    size_t width = 0;
    for (size_t i = 0; i < count; ++i) {
        const int cells = wcwidth(characters[i]);
        if (cells < 1) {
            return std::nullopt;
        }
        width += static_cast<size_t>(cells);
    }
    return width;
}

std::string Text(const FrameLine& line) {
    std::string text;
    for (const Span& span : line) {
        text += span.text;
    }
    return text;
}

const std::vector<std::string> HOSTILE_NAMES = {"\x1b[2J\x07",
                                                "a\nb\r\tc",
                                                "\xff\xfe\x80",
                                                "\xe6\xbc\xa2\xe5\xad\x97\xe6\xbc\xa2\xe5\xad\x97",
                                                "e\xcc\x81\xcc\x81\xcc\x81",
                                                "\u202eevil",
                                                "\xf0\x9f\x9a\x80\xf0\x9f\x9a\x80",
                                                "",
                                                std::string("a\0b", 3),
                                                "sixteen-letters!"};

ProcessView HostileView() {
    ProcessView view;
    for (const std::string& name : HOSTILE_NAMES) {
        ProcessRow row;
        row.pid = INT32_MAX;
        row.ppid = INT32_MIN;
        row.name = name;
        row.threads = INT32_MAX;
        row.openFds = INT64_MAX;
        row.memory.fill(INT64_MAX);
        row.resident = INT64_MIN;
        row.change = INT64_MIN;
        row.age = INT64_MAX;
        row.history = {0, UINT32_MAX, 5};
        row.isGrowing = true;
        row.newThreads = INT64_MAX;
        row.youngExits = UINT32_MAX;
        view.rows.push_back(row);
        view.loops.push_back({name, UINT32_MAX, INT64_MAX});
    }
    view.totals = {SIZE_MAX, SIZE_MAX, INT64_MAX, 1e18, 1e18, 1e18};
    view.matching = 999;
    return view;
}

class FrameTest : public testing::TestWithParam<const char*> {
  protected:
    FrameTest() { std::setlocale(LC_CTYPE, GetParam()); }
};
INSTANTIATE_TEST_SUITE_P(CharacterSets, FrameTest, testing::Values("C.UTF-8", "C"));

TEST_P(FrameTest, FillsExactlyTheScreenAtAnySizeWhateverTheNames) {
    const ProcessView view = HostileView();
    FrameState state;
    for (const auto& [isHelp, isFilter] : {std::pair(false, false), {true, false}, {false, true}}) {
        state.isHelpShown = isHelp;
        state.isFilterTyped = isFilter;
        state.isPaused = !isHelp;
        state.request.filter = "\xe6\xbc\xa2\x1b";
        state.clock = "12:34:56";
        for (size_t width = 1; width <= 210; ++width) {
            for (const size_t height : {1, 2, 3, 4, 9, 10, 24, 60}) {
                const std::vector<FrameLine> lines = MakeFrame(view, state, width, height);
                ASSERT_LE(lines.size(), height) << width;
                for (const FrameLine& line : lines) {
                    ASSERT_EQ(Width(Text(line)), width) << height << Text(line);
                }
            }
        }
        EXPECT_TRUE(MakeFrame(view, state, 0, 10).empty());
        EXPECT_TRUE(MakeFrame(view, state, 10, 0).empty());
    }
}

TEST_P(FrameTest, CutsAndFillsCells) {
    EXPECT_EQ(FitToWidth("abc", 5), "abc  ");
    EXPECT_EQ(FitToWidth("abc", 5, Align::RIGHT), "  abc");
    EXPECT_EQ(FitToWidth("abc", 3), "abc");
    EXPECT_EQ(FitToWidth("abcd", 3), "ab~");
    EXPECT_EQ(FitToWidth("abcd", 1), "~");
    EXPECT_EQ(FitToWidth("abcd", 0), "");
    EXPECT_EQ(FitToWidth("a\x1b\n", 4), "a?? ");
    EXPECT_EQ(TrimRight("  a  "), "  a");
    EXPECT_EQ(TrimRight("   "), "");
    if (IsUnicodeShown()) {
        // Two cells each; half of one is never shown.
        EXPECT_EQ(FitToWidth("漢字", 4), "漢字");
        EXPECT_EQ(FitToWidth("漢字", 3), "漢~");
        EXPECT_EQ(FitToWidth("漢字", 2), "~ ");
        EXPECT_EQ(FitToWidth("e\u0301", 3), "e? ");
    } else {
        EXPECT_EQ(FitToWidth("ü", 3), "?  ");
    }
}

TEST(Sparkline, ShowsTheCourseAndNotTheNoise) {
    std::setlocale(LC_CTYPE, "C.UTF-8");
    EXPECT_EQ(Sparkline({0, 100, 200, 300, 400, 500, 600, 700}, 8), "▁▂▃▄▅▆▇█");
    EXPECT_EQ(Sparkline({9, 9, 700, 0}, 2), "█▁");
    EXPECT_EQ(Sparkline({700, 0}, 4), "  █▁");
    // A hundredth up is no mountain.
    EXPECT_EQ(Sparkline({100000, 101000, 100000}, 3), "▁▁▁");
    EXPECT_EQ(Sparkline({0, 0}, 2), "▁▁");
    EXPECT_EQ(Sparkline({UINT32_MAX, 0, UINT32_MAX}, 3), "█▁█");
    EXPECT_EQ(Sparkline({}, 2), "  ");
    EXPECT_EQ(Sparkline({1}, 0), "");
    std::setlocale(LC_CTYPE, "C");
    EXPECT_EQ(Sparkline({0, 700}, 2), "_#");
}

std::vector<ColumnId> Ids(size_t width) {
    std::vector<ColumnId> ids;
    for (const Column& column : LayOutColumns(width)) {
        ids.push_back(column.id);
    }
    return ids;
}

TEST(TopLayout, UsesTheWholeWidthAndDropsTheLeastImportantFirst) {
    for (size_t width = 7; width <= 400; ++width) {
        size_t used = 0;
        for (const Column& column : LayOutColumns(width)) {
            used += column.width + (used == 0 ? 0 : COLUMN_GAP);
        }
        ASSERT_EQ(used, width);
    }
    EXPECT_TRUE(LayOutColumns(6).empty());
    EXPECT_THAT(Ids(34), testing::ElementsAre(ColumnId::PID, ColumnId::NAME, ColumnId::MEMORY));
    EXPECT_THAT(Ids(80), AllOf(Contains(ColumnId::HISTORY), Contains(ColumnId::HINT),
                               Contains(ColumnId::FDS), Not(Contains(ColumnId::ANON))));
    EXPECT_EQ(Ids(200).size(), 15U);
}

TEST(TopFrame, ShowsARowAndItsHints) {
    std::setlocale(LC_CTYPE, "C.UTF-8");
    ProcessView view;
    ProcessRow row;
    row.pid = 4711;
    row.name = "media";
    row.threads = 12;
    row.openFds = 34;
    row.resident = 20 << 20;
    row.change = 4 << 20;
    row.age = 125'000'000'000;
    row.history = {100, 800};
    row.isGrowing = true;
    row.youngExits = 7;
    view.rows = {row};
    view.matching = 1;
    view.loops = {{"crashd", 12, 3'300'000}};
    view.totals.processes = 1;
    FrameState state;
    state.connection = Connection::CONNECTED;
    EXPECT_THAT(MakePlainText(view, state, 80),
                AllOf(HasSubstr(" tesubpf top  live\n"), HasSubstr(" processes 1  threads 0  "),
                      HasSubstr(" young exits crashd 12x 3.3 ms\n"),
                      HasSubstr("\n    PID NAME                MEMORY  CHANGE/MIN   THR   FDS     "
                                "AGE  HISTORY HINT\n"
                                "   4711 media             20.0 MiB    +4.0 MiB    12    34   2m05s"
                                "       ▁█ gy\n")));
    EXPECT_THAT(MakePlainText(view, state, 140), HasSubstr(" growing, 7 young exits\n"));

    // Rows beyond the screen are counted; a filter is seen while it is typed, on any screen.
    view.matching = 9;
    EXPECT_THAT(Text(MakeFrame(view, state, 80, 24).back()), HasSubstr(" 1-1 of 9 "));
    state.isFilterTyped = true;
    state.request.filter = "med";
    EXPECT_THAT(Text(MakeFrame(view, state, 80, 24).back()), HasSubstr(" filter: med_"));
    EXPECT_THAT(Text(MakeFrame(view, state, 80, 2).front()), HasSubstr(" filter: med_"));
    state.connection = Connection::LOST;
    EXPECT_THAT(Text(MakeFrame(view, state, 80, 24).front()), HasSubstr("stand still"));
}

TEST(TopFrame, WritesAges) {
    constexpr int64_t SECOND = 1'000'000'000;
    EXPECT_EQ(FormatAge(SECOND - 1), "0s");
    EXPECT_EQ(FormatAge(185 * SECOND), "3m05s");
    EXPECT_EQ(FormatAge((2 * 3600 + 59) * SECOND), "2h00m");
    EXPECT_EQ(FormatAge((12 * 86400 + 3 * 3600) * SECOND), "12d03h");
}

}  // namespace
}  // namespace Tesu::Bpf
