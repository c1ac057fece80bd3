// SPDX-License-Identifier: Apache-2.0
#include "client/top/sparkline.h"

#include <algorithm>
#include <array>
#include <cstddef>

#include "client/text/terminal_text.h"

namespace Tesu::Bpf {

namespace {

constexpr std::array<const char*, 8> BARS = {"▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};
constexpr std::array<const char*, 8> ASCII_BARS = {"_", "_", ".", "-", "=", "+", "*", "#"};

}  // namespace

std::string Sparkline(const std::vector<uint32_t>& values, size_t width) {
    const size_t count = std::min(width, values.size());
    std::string line(width - count, ' ');
    if (count == 0) {
        return line;
    }
    const auto shown = values.end() - static_cast<ptrdiff_t>(count);
    const auto [smallest, largest] = std::minmax_element(shown, values.end());
    // What the full height stands for; never 0.
    const uint64_t range =
        std::max<uint64_t>({uint64_t{*largest} - *smallest, *largest / 10, BARS.size()});
    const auto& bars = IsUnicodeShown() ? BARS : ASCII_BARS;
    for (auto value = shown; value != values.end(); ++value) {
        const uint64_t height = (uint64_t{*value} - *smallest) * (bars.size() - 1) / range;
        line += bars[std::min<size_t>(height, bars.size() - 1)];
    }
    return line;
}

}  // namespace Tesu::Bpf
