// SPDX-License-Identifier: Apache-2.0
//
// What a test knows of the program in storm.cpp.
#pragma once

#include <cstddef>

inline constexpr int KEPT_THREADS = 20;
inline constexpr int GROWN_THREADS = 20;
inline constexpr size_t GROWN_BYTES = size_t{64} << 20;
