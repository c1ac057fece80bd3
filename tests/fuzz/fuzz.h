// SPDX-License-Identifier: Apache-2.0
//
// What the fuzzers share. An input is a sequence of pieces, each behind a byte that says how long
// it is.
#pragma once

#include <android/log.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <vector>

// Ends the run with an input that shows that something does not hold.
inline void Require(bool holds) {
    if (!holds) {
        std::abort();
    }
}

// What is logged is formatted and dropped.
inline const int QUIET =
    (__android_log_set_logger([](const __android_logger_data*, const char*) {}), 0);

// Hands each piece to `visit`, in a block of its own size, so that a read past it is seen.
template <class Visit>
void ForEachPiece(const uint8_t* data, size_t size, Visit visit) {
    for (const uint8_t *at = data, *const end = data + size; at != end;) {
        const uint8_t* const start = at + 1;
        at = start + std::min<ptrdiff_t>(*at, end - start);
        std::vector<char> piece(start, at);
        visit(piece.data(), static_cast<unsigned>(piece.size()));
    }
}
