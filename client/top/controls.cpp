// SPDX-License-Identifier: Apache-2.0
#include "client/top/controls.h"

#include <algorithm>
#include <cstdint>
#include <string>
#include <utility>

#include "client/top/columns.h"

namespace Tesu::Bpf {

namespace {

constexpr size_t MAX_FILTER = 64;

void OnFilterKey(int key, FrameState* state) {
    std::string& filter = state->request.filter;
    if (key == SCREEN_KEY_ENTER) {
        state->isFilterTyped = false;
    } else if (key == SCREEN_KEY_ESCAPE) {
        state->isFilterTyped = false;
        filter.clear();
    } else if (key == SCREEN_KEY_BACKSPACE) {
        // A whole character: its continuation bytes, and the byte that begins it.
        while (!filter.empty() && (static_cast<unsigned char>(filter.back()) & 0xc0) == 0x80) {
            filter.pop_back();
        }
        if (!filter.empty()) {
            filter.pop_back();
        }
    } else if (key >= ' ' && key <= 0xff && filter.size() < MAX_FILTER) {
        filter += static_cast<char>(key);
    }
    state->request.firstRow = 0;
}

// Rows to scroll down; 0 for a key that does not scroll.
int64_t ScrolledRows(int key, int64_t page) {
    for (const auto& [scrolling, rows] : {std::pair<int, int64_t>{SCREEN_KEY_UP, -1},
                                          {SCREEN_KEY_DOWN, 1},
                                          {SCREEN_KEY_PAGE_UP, -page},
                                          {SCREEN_KEY_PAGE_DOWN, page},
                                          {SCREEN_KEY_HOME, INT32_MIN},
                                          {SCREEN_KEY_END, INT32_MAX}}) {
        if (key == scrolling) {
            return rows;
        }
    }
    return 0;
}

}  // namespace

Command OnKey(int key, size_t page, size_t rows, FrameState* state) {
    ViewRequest& request = state->request;
    if (state->isFilterTyped) {
        OnFilterKey(key, state);
        return Command::NONE;
    }
    if (key == 'q') {
        return Command::QUIT;
    }
    if (state->isHelpShown) {
        state->isHelpShown = false;
        return Command::NONE;
    }
    for (const Column* const column : OrderColumns()) {
        if (key == column->order.key) {
            request.order = column->order.compare;
            request.isReversed = false;
            request.firstRow = 0;
        }
    }
    switch (key) {
        case 'r':
            request.isReversed = !request.isReversed;
            break;
        case 'R':
            return Command::READ_PROC;
        case 'k':
            request.withKernelThreads = !request.withKernelThreads;
            break;
        case ' ':
            state->isPaused = !state->isPaused;
            break;
        case '?':
        case 'h':
            state->isHelpShown = true;
            break;
        case '/':
            state->isFilterTyped = true;
            break;
        case SCREEN_KEY_ESCAPE:
            request.filter.clear();
            break;
        default:
            break;
    }
    // The view takes back what is too far.
    request.firstRow = static_cast<size_t>(std::clamp<int64_t>(
        static_cast<int64_t>(request.firstRow) + ScrolledRows(key, static_cast<int64_t>(page)), 0,
        static_cast<int64_t>(rows)));
    return Command::NONE;
}

}  // namespace Tesu::Bpf
