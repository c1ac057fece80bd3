// SPDX-License-Identifier: Apache-2.0
//
// Text from outside (names of tasks, paths, what the user typed) made safe for a terminal and as
// wide as asked. Everything that a program shows of such text goes through here.
//
// Width is counted in the terminal's cells, by the character set that the process has chosen
// (LC_CTYPE); apart from that all is pure. Any thread.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace Tesu::Bpf {

// Chooses the character set that the environment names, UTF-8 when it names none. For main().
void ChooseCharacterSet();

// Whether the chosen character set can show more than ASCII.
bool IsUnicodeShown();

// Text that is safe on a terminal and unambiguous: valid UTF-8 is kept, whatever the character set;
// every other byte, and every character that acts on the terminal or on the text around it or that
// is no character at all (control, format, line and paragraph separator, surrogate, unassigned),
// becomes \xHH per byte. A backslash is doubled.
std::string EscapeForTerminal(std::string_view text);

// The text with U+FFFD for each byte that belongs to no character of valid UTF-8: for programs, not
// for a terminal.
std::string ToValidUtf8(std::string_view text);

// Adds blanks up to `width` cells; wider text is left alone.
std::string PadRight(std::string text, size_t width);

enum class Align { LEFT, RIGHT };

// `text` in exactly `width` cells: filled up with blanks, or cut, with "~" as its last character.
// Wide characters take two cells; what EscapeForTerminal would not keep, what has no width of its
// own (combining characters) and what the character set lacks becomes "?".
std::string FitToWidth(std::string_view text, size_t width, Align align = Align::LEFT);

// The same cells without the blanks at the end.
std::string TrimRight(std::string text);

}  // namespace Tesu::Bpf
