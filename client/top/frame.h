// SPDX-License-Identifier: Apache-2.0
//
// What `tesubpf top` shows, as lines of styled text: the screen paints them, a batch run prints
// them. Depends on the chosen character set, as FitToWidth() does; otherwise pure.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

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
    ViewRequest request;         // what the view was made for
};

// Lines of a frame that are no rows, at a given height; the rest of the height shows rows.
size_t FrameChrome(size_t height);

// At most `height` lines, each exactly `width` cells.
std::vector<StyledLine> MakeFrame(const ProcessView& view, const FrameState& state, size_t width,
                                  size_t height);

// All of it as text, without styles, for a view of any number of rows.
std::string MakePlainText(const ProcessView& view, const FrameState& state, size_t width);

}  // namespace Tesu::Bpf
