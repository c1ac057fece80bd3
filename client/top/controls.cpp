// SPDX-License-Identifier: Apache-2.0
#include "client/top/controls.h"

#include <algorithm>
#include <cstdint>
#include <string>
#include <utility>

#include "client/top/columns.h"

namespace Tesu::Bpf {

namespace {

constexpr size_t MAX_TYPED = 64;

// A key of a text that is being typed. False when with it the text is done, empty if given up.
bool OnTypedKey(int key, std::string* text) {
    if (key == SCREEN_KEY_ENTER) {
        return false;
    }
    if (key == SCREEN_KEY_ESCAPE) {
        text->clear();
        return false;
    }
    if (key == SCREEN_KEY_BACKSPACE) {
        // A whole character: its continuation bytes, and the byte that begins it.
        while (!text->empty() && (static_cast<unsigned char>(text->back()) & 0xc0) == 0x80) {
            text->pop_back();
        }
        if (!text->empty()) {
            text->pop_back();
        }
    } else if (key >= ' ' && key <= 0xff && text->size() < MAX_TYPED) {
        *text += static_cast<char>(key);
    }
    return true;
}

// The keys that a recording has beyond those of a live view.
Command OnRecordingKey(int key, FrameState* state) {
    if (key == 't') {
        state->isTimeTyped = true;
        state->time.clear();
    }
    return key == SCREEN_KEY_LEFT    ? Command::GO_BACK
           : key == SCREEN_KEY_RIGHT ? Command::GO_ON
                                     : Command::NONE;
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
    state->message.clear();
    if (state->isFilterTyped) {
        state->isFilterTyped = OnTypedKey(key, &request.filter);
        request.firstRow = 0;
        return Command::NONE;
    }
    if (state->isTimeTyped) {
        state->isTimeTyped = OnTypedKey(key, &state->time);
        return state->isTimeTyped || state->time.empty() ? Command::NONE : Command::GO_TO;
    }
    if (key == 'q') {
        return Command::QUIT;
    }
    if (state->isHelpShown) {
        state->isHelpShown = false;
        return Command::NONE;
    }
    for (const Column* const column : OrderColumns()) {
        if (key == OrderKey(*column, state->isRecording)) {
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
    return state->isRecording ? OnRecordingKey(key, state) : Command::NONE;
}

}  // namespace Tesu::Bpf
