// SPDX-License-Identifier: Apache-2.0
//
// What the keys of `tesubpf top` do. Pure.
#pragma once

#include <cstddef>

#include "client/top/frame.h"

namespace Tesu::Bpf {

// The keys that are no character.
enum ScreenKey {
    SCREEN_KEY_UP = 0x110000,  // behind the last character
    SCREEN_KEY_DOWN,
    SCREEN_KEY_LEFT,
    SCREEN_KEY_RIGHT,
    SCREEN_KEY_PAGE_UP,
    SCREEN_KEY_PAGE_DOWN,
    SCREEN_KEY_HOME,
    SCREEN_KEY_END,
    SCREEN_KEY_OTHER,
};
inline constexpr int SCREEN_KEY_ENTER = '\n';
inline constexpr int SCREEN_KEY_ESCAPE = 0x1b;
inline constexpr int SCREEN_KEY_BACKSPACE = 0x7f;

enum class Command {
    NONE,
    QUIT,
    READ_PROC,
    // In a recording.
    GO_BACK,
    GO_ON,
    GO_TO,  // the time that was typed
};

// Changes the state as the key, a byte of a character or a ScreenKey, asks for, and returns what it
// asks for beyond that. page: rows that are shown. rows: of the whole table.
Command OnKey(int key, size_t page, size_t rows, FrameState* state);

}  // namespace Tesu::Bpf
