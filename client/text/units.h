// SPDX-License-Identifier: Apache-2.0
//
// Sizes and durations as text for people. Pure; any thread.
#pragma once

#include <cstdint>
#include <string>

namespace Tesu::Bpf {

// "512 B", "4.0 KiB", "12.3 MiB", "-1.0 GiB".
std::string FormatBytes(int64_t bytes);

// A change of a size: the same, with "+" before what is not negative.
std::string FormatSignedBytes(int64_t bytes);

// A duration of nanoseconds with the unit that suits it: "830 us", "3.2 ms", "1.25 s", "2 h 05 m".
std::string FormatDuration(int64_t nanoseconds);

}  // namespace Tesu::Bpf
