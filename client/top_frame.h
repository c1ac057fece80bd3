// SPDX-License-Identifier: Apache-2.0
//
// What `tesubpf top` shows, as lines of styled text: the terminal paints them, a batch run prints
// them. Depends on the chosen character set (see client/text/terminal_text.h); otherwise pure.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "client/process_model.h"

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
using FrameLine = std::vector<Span>;

enum class Connection { CONNECTING, CONNECTED, NO_SERVICE, LOST, REFUSED };

struct FrameState {
    Connection connection = Connection::CONNECTING;
    bool isPaused = false;
    bool isHelpShown = false;
    bool isFilterTyped = false;  // the filter is being typed
    std::string clock;           // the time of day
    ViewRequest request;         // what the view was made for
};

// Lines of a frame that are no rows, at a given height; the rest of the height shows rows.
size_t FrameChrome(size_t height);

// At most `height` lines, each exactly `width` cells.
std::vector<FrameLine> MakeFrame(const ProcessView& view, const FrameState& state, size_t width,
                                 size_t height);

// All of it as text, without styles, for a view of any number of rows.
std::string MakePlainText(const ProcessView& view, const FrameState& state, size_t width);

// "12s", "3m05s", "2h05m", "12d03h": never more than 7 characters within 27 years.
std::string FormatAge(int64_t nanoseconds);

}  // namespace Tesu::Bpf
