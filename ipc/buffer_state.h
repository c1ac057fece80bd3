// SPDX-License-Identifier: Apache-2.0
//
// The byte buffer of one connection and direction. The transport owns it; the frame functions and
// the owner's callbacks move its cursor and length.
#pragma once

// Invariant: 0 <= cursor <= length <= capacity. data[cursor, length) is what has been received and
// not yet consumed (read buffer), or queued and not yet sent (write buffer). Sizes in bytes.
struct BufferState {
    int cursor = 0;
    int length = 0;
    int capacity = 0;
    // From malloc(capacity); freed by the UnixIpcManager that allocated it.
    char* data = nullptr;
};
