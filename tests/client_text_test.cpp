// SPDX-License-Identifier: Apache-2.0
//
// What foreign text becomes before it is shown on a terminal.
#include <gtest/gtest.h>

#include <clocale>
#include <string>

#include "client/text/terminal_text.h"

namespace Tesu::Bpf {
namespace {

TEST(ClientText, NothingThatActsOnATerminalIsKeptAndWidthsAreCells) {
    // Control, format (bidirectional), separator, surrogate, not UTF-8.
    for (const std::string text : {"\x1b", "\u009b", "\u202e", "\u2028", "\xed\xa0\x80", "\xff"}) {
        const std::string escaped = EscapeForTerminal(text);
        EXPECT_EQ(escaped.size(), 4 * text.size()) << escaped;
        EXPECT_EQ(escaped.find_first_not_of("\\x0123456789abcdef"), std::string::npos) << escaped;
    }
    EXPECT_EQ(EscapeForTerminal("gr\u00fc\u00df \u6f22\\"), "gr\u00fc\u00df \u6f22\\\\");
    ASSERT_NE(std::setlocale(LC_CTYPE, "C.UTF-8"), nullptr);
    EXPECT_EQ(PadRight("\u6f22\u5b57", 6) + "|", "\u6f22\u5b57  |");
}

}  // namespace
}  // namespace Tesu::Bpf
