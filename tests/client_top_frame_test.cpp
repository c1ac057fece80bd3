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
