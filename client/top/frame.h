// SPDX-License-Identifier: Apache-2.0
//
// What `tesubpf top` shows, as lines of styled text: the screen paints them, a batch run prints
// them. Depends on the chosen character set, as FitToWidth() does; otherwise pure.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "client/top/columns.h"
#include "client/top/styled_line.h"
#include "libtesubpf/tesubpf.h"
#include "model/process_model.h"

namespace Tesu::Bpf {

struct FrameState {
    // What was last heard of the connection: TESUBPF_CONNECTED, _WAITING, _LOST or _REFUSED; at
    // first 0.
    uint32_t connection = 0;
    std::string lostReason;  // where it is lost and one is known
    bool isPaused = false;
    bool isHelpShown = false;
    bool isFilterTyped = false;  // the filter is being typed
    std::string clock;           // the time of day
    // Of a recording.
    bool isRecording = false;
    bool isAtEnd = false;
    bool isTimeTyped = false;  // where to go is being typed
    std::string time;          // what was typed
    std::string message;       // what was wrong with it
    ViewRequest request;       // what the view was made for
};

// The key that orders by the column: in a recording another than the one that asks for a time.
char OrderKey(const Column& column, bool isRecording);

// Lines of a frame that are no rows, at a given height; the rest of the height shows rows.
size_t FrameChrome(size_t height);

// At most `height` lines, each exactly `width` cells.
std::vector<StyledLine> MakeFrame(const ProcessView& view, const FrameState& state, size_t width,
                                  size_t height);

// All of it as text, without styles, for a view of any number of rows.
std::string MakePlainText(const ProcessView& view, const FrameState& state, size_t width);

}  // namespace Tesu::Bpf
