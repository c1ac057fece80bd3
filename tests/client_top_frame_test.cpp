// SPDX-License-Identifier: Apache-2.0
//
// What the full-screen view shows: exactly as wide as asked at every size, and what it is to be.
#include <gtest/gtest.h>
#include <wchar.h>

#include <array>
#include <clocale>
#include <string>
#include <vector>

#include "client/top/columns.h"
#include "client/top/frame.h"
#include "tests/support/golden.h"

namespace Tesu::Bpf {
namespace {

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
    constexpr int64_t SECOND = 1'000'000'000;
    constexpr int64_t MIB = 1 << 20;
    constexpr int64_t MAX = INT64_MAX;
    const std::vector<uint32_t> rising = {0, 100, 200, 300, 400, 500, 600, 700};
    const std::array<int64_t, RSS_MEMBER_COUNT> sizes = {8 * MIB, 12 * MIB, 3 * MIB, 0};
    ProcessView view;
    // clang-format off
    view.rows = {
        {4711, 1, 0, "media", false, 12, 34, sizes, 20 * MIB, 4 * MIB, 125 * SECOND, rising, true, 0, 0},
        {2, 0, 0, "kthreadd", true, 1, {}, {}, 0, 0, 1036800 * SECOND, {0}, false, 0, 0},
        {815, 1, 1000, "sixteen-letters!", false, 12, 34, sizes, 20 * MIB, -MIB, SECOND - 1,
         {100000, 101000, 100000}, false, 30, 0},
        {INT32_MIN, INT32_MIN, INT32_MIN, "\x1b[2J\x07", false, INT32_MIN, INT64_MIN, {MAX, MAX, MAX, MAX},
         INT64_MIN, INT64_MIN, MAX, {0, UINT32_MAX, 5}, true, MAX, UINT32_MAX},
    };
    // clang-format on
    for (const char* const name : {"a\nb\r\tc", "\xff\xfe\x80", "漢字漢字漢", "e\u0301\u0301",
                                   "\u202eevil\u200b", "🚀🚀🚀", "", "x\u0085"}) {
        view.rows.push_back(
            {7, 1, 0, name, false, 1, 5, sizes, MIB, 0, 7259 * SECOND, rising, false, 0, 12});
        view.loops.push_back({name, 12, 125 * SECOND});
    }
    view.totals = {7, 2, 99, 1.4, 2.6, 1e18};
    view.matching = 99;
    return view;
}

class TopFrameTest : public testing::TestWithParam<const char*> {};
INSTANTIATE_TEST_SUITE_P(CharacterSets, TopFrameTest, testing::Values("C.UTF-8", "C"));

TEST_P(TopFrameTest, FillsExactlyTheScreenAtAnySizeWhateverTheNames) {
    std::setlocale(LC_CTYPE, GetParam());
    FrameState state;
    state.clock = "12:34:56";
    state.request.filter = "漢\x1b";
    for (const bool isHelp : {false, true}) {
        state.isHelpShown = isHelp;
        state.isPaused = state.isFilterTyped = !isHelp;
        for (size_t width = 1; width <= 220; ++width) {
            for (const size_t height : {1, 2, 4, 9, 10, 24}) {
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
    FrameState state;
    state.clock = "12:34:56";
    state.request.order = OrderColumns().front()->order.compare;
    std::string text;
    const auto show = [&](size_t width, size_t height) {
        for (const StyledLine& line : MakeFrame(View(), state, width, height)) {
            text += Text(line) + "|\n";
        }
    };
    std::setlocale(LC_CTYPE, "C.UTF-8");
    state.connection = ConnectionItem::CONNECTED;
    show(80, 17);
    show(100, 4);
    state.connection = ConnectionItem::LOST;
    state.isPaused = true;
    state.request.filter = "m";
    show(220, 17);
    ExpectGolden("top.golden", text);
    std::setlocale(LC_CTYPE, "C");
    text = MakePlainText(View(), state, 140);
    state.isFilterTyped = true;
    show(60, 2);
    state.isHelpShown = true;
    show(100, 30);
    ExpectGolden("top-ascii.golden", text);
}

}  // namespace
}  // namespace Tesu::Bpf
