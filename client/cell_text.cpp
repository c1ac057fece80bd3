// SPDX-License-Identifier: Apache-2.0
#include "client/cell_text.h"

#include <langinfo.h>
#include <wchar.h>

#include <algorithm>
#include <array>
#include <cstring>

namespace Tesu::Bpf {

namespace {

struct Character {
    std::string_view bytes;  // what is shown
    size_t length;           // bytes of the text that it stands for
    size_t width;            // cells
};

Character NextCharacter(std::string_view text) {
    wchar_t decoded = 0;
    mbstate_t state{};
    const size_t length = mbrtowc(&decoded, text.data(), text.size(), &state);
    if (length == 0 || length > text.size()) {
        return {"?", 1, 1};  // a NUL, or no character of this character set
    }
    const int width = wcwidth(decoded);
    if (width <= 0) {
        return {"?", length, 1};
    }
    return {text.substr(0, length), length, static_cast<size_t>(width)};
}

constexpr std::array<const char*, 8> BARS = {"▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};
constexpr std::array<const char*, 8> ASCII_BARS = {"_", "_", ".", "-", "=", "+", "*", "#"};

}  // namespace

std::string FitToWidth(std::string_view text, size_t width, Align align) {
    std::string shown;
    size_t used = 0;
    // Where the text is to be cut if it does not fit: the last place that leaves a cell for "~".
    size_t cutAt = 0;
    size_t cutUsed = 0;
    while (!text.empty()) {
        const Character character = NextCharacter(text);
        if (used + character.width > width) {
            shown.resize(cutAt);
            shown += width > 0 ? "~" : "";
            used = std::min(width, cutUsed + 1);
            break;
        }
        shown += character.bytes;
        used += character.width;
        text.remove_prefix(character.length);
        if (used < width) {
            cutAt = shown.size();
            cutUsed = used;
        }
    }
    shown.insert(align == Align::LEFT ? shown.size() : 0, width - used, ' ');
    return shown;
}

std::string TrimRight(std::string text) {
    text.erase(text.find_last_not_of(' ') + 1);
    return text;
}

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

bool IsUnicodeShown() {
    return std::strcmp(nl_langinfo(CODESET), "UTF-8") == 0;
}

}  // namespace Tesu::Bpf
