// SPDX-License-Identifier: Apache-2.0
//
// A row of bars that shows how a figure moved.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace Tesu::Bpf {

// A bar for each of the last `width` values, oldest first, padded at the left; in ASCII when the
// character set has no more. The lowest bar is the smallest value, the full height the largest or a
// tenth of it above the smallest, so that what hardly changes looks flat. Values of a few KiB are
// drawn alike.
std::string Sparkline(const std::vector<uint32_t>& values, size_t width);

}  // namespace Tesu::Bpf
