// SPDX-License-Identifier: Apache-2.0
//
// Text of the client: what a user may write, and what foreign text becomes.
#include <gtest/gtest.h>

#include <clocale>
#include <string>
#include <vector>

#include "client/events/event_names.h"
#include "client/text/terminal_text.h"
#include "client/text/units.h"

namespace Tesu::Bpf {
namespace {

TEST(ClientText, NothingThatActsOnATerminalIsKept) {
    // Control, format (bidirectional, tag, soft hyphen), separators, unassigned, not UTF-8.
    for (const std::string text :
         {"\x1b", "\x7f", "\u009b", "\u00ad", "\u061c", "\u180e", "\u202e", "\ufff9", "\U000e0001",
          "\u2028", "\u2029", "\U0010ffff", "\xed\xa0\x80", "\xc0\x9b", "\xe2\x82", "\xff"}) {
        const std::string escaped = EscapeForTerminal(text);
        EXPECT_EQ(escaped.size(), 4 * text.size()) << escaped;
        EXPECT_EQ(escaped.find_first_not_of("\\x0123456789abcdef"), std::string::npos) << escaped;
    }
    const std::string plain = "gr\u00fc\u00df e\u0301 \u6f22 \U0001f680 \ue000";
    EXPECT_EQ(EscapeForTerminal(plain + "\\"), plain + "\\\\");
}

TEST(ClientText, IsAsWideAsAsked) {
    ASSERT_NE(std::setlocale(LC_CTYPE, "C.UTF-8"), nullptr);
    EXPECT_EQ(PadRight("\u6f22\u5b57", 6) + "|", "\u6f22\u5b57  |");
    EXPECT_EQ(PadRight("e\u0301", 2) + "|", "e\u0301 |");
    EXPECT_EQ(FitToWidth("\u6f22\u5b57", 3), "\u6f22~");
    EXPECT_EQ(FitToWidth("\u6f22\u5b57", 2), "~ ");
    EXPECT_EQ(FitToWidth("a\x1b\u00ad", 5, Align::RIGHT), "  a??");
    std::setlocale(LC_CTYPE, "C");
    EXPECT_EQ(FitToWidth("\u6f22!", 3), "?! ");
}

TEST(ClientText, EventTypesAreNamedInAnyWay) {
    EXPECT_EQ(ParseEventTypes({"fork,3", "task-create"}).value(), (std::vector<int>{2, 3}));
    EXPECT_EQ(ParseEventTypes({"50004", "all"}).value().size(), 11U);
    EXPECT_FALSE(ParseEventTypes({"fork,forks"}));
    EXPECT_FALSE(ParseEventTypes({","}));
}

TEST(ClientText, UnitsSuitTheSize) {
    EXPECT_EQ(FormatBytes(1023) + FormatBytes(1024 * 1024 - 1), "1023 B1.0 MiB");
    EXPECT_EQ(FormatSignedBytes(-3LL << 29), "-1.5 GiB");
    EXPECT_EQ(FormatDuration(3'249'000) + FormatDuration(7'500'000'000'000), "3.2 ms2 h 05 m");
}

}  // namespace
}  // namespace Tesu::Bpf
