// SPDX-License-Identifier: Apache-2.0
//
// Waits for something that another thread or process does; every wait of the tests has an end.
#pragma once

#include <chrono>
#include <functional>
#include <thread>

inline constexpr std::chrono::seconds TEST_PATIENCE{60};

// Whether `condition` held before the patience ran out.
inline bool WaitUntil(const std::function<bool()>& condition,
                      std::chrono::milliseconds patience = TEST_PATIENCE) {
    const auto end = std::chrono::steady_clock::now() + patience;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}
