// SPDX-License-Identifier: Apache-2.0
//
// Text that fills an exact number of a terminal's cells. Depends on the character set that the
// process has chosen (LC_CTYPE); otherwise pure.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace Tesu::Bpf {

enum class Align { LEFT, RIGHT };

// `text` in exactly `width` cells: filled up with blanks, or cut, with "~" as its last character.
// Wide characters take two cells; what the terminal cannot show in one piece (control characters,
// characters without a width, bytes that are no text) becomes "?".
std::string FitToWidth(std::string_view text, size_t width, Align align = Align::LEFT);

// The same cells without the blanks at the end.
std::string TrimRight(std::string text);

// A bar for each of the last `width` values, oldest first, padded at the left. The lowest bar is
// the smallest value, the full height the largest or a tenth of it above the smallest, so that
// what hardly changes looks flat. Values of a few KiB are drawn alike.
std::string Sparkline(const std::vector<uint32_t>& values, size_t width);

// Whether the process's character set can show more than ASCII.
bool IsUnicodeShown();

}  // namespace Tesu::Bpf
