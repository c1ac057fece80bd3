// SPDX-License-Identifier: Apache-2.0
//
// A line of a screen: spans of text, each in a style. Depends on the chosen character set, as
// FitToWidth() does; otherwise pure.
#pragma once

#include <algorithm>
#include <cstddef>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "client/text/terminal_text.h"

namespace Tesu::Bpf {

enum class Style {
    PLAIN,
    STRONG,
    FAINT,
    GOOD,
    WARNING,
    BAD,
    TITLE,         // of a column
    SORTED_TITLE,  // of the column that orders the rows
};

struct Span {
    std::string text;  // cells and nothing else: no byte acts on the terminal
    Style style = Style::PLAIN;
};
using StyledLine = std::vector<Span>;

// Makes a line of exactly `width` cells: what does not fit is cut, what is missing is blank. Any
// text may be given; it becomes safe here and nowhere else.
class LineBuilder {
  public:
    explicit LineBuilder(size_t width) : left(width) {}

    void add(std::string_view text, size_t width, Align align, Style style) {
        const size_t fitting = std::min(width, left);
        if (fitting > 0) {
            line.push_back({FitToWidth(text, fitting, align), style});
            left -= fitting;
        }
    }

    // A cell for each byte: exact for ASCII, and enough for any other text.
    void add(std::string_view text, Style style = Style::PLAIN) {
        add(text, text.size(), Align::LEFT, style);
    }

    void addBlanks(size_t width, Style style = Style::PLAIN) { add("", width, Align::LEFT, style); }

    // Text of any characters, up to the end of the line.
    StyledLine endWith(std::string_view text, Style style = Style::PLAIN) {
        add(text, left, Align::LEFT, style);
        return std::move(line);
    }

    // Cells that are left.
    size_t room() const { return left; }

  private:
    size_t left;
    StyledLine line;
};

}  // namespace Tesu::Bpf
