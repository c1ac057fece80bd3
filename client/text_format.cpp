// SPDX-License-Identifier: Apache-2.0
#include "client/text_format.h"

#include <cmath>

#include "util/string_util.h"

namespace Tesu::Bpf {

namespace {

struct Utf8Character {
    size_t length;  // bytes; 0: not valid here
    uint32_t codePoint;
};

// Decodes one character as RFC 3629 has it: no overlong forms, no surrogates, up to U+10FFFF.
Utf8Character DecodeUtf8(std::string_view text) {
    const auto byteAt = [text](size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char first = byteAt(0);
    if (first < 0x80) {
        return {1, first};
    }
    size_t length = 0;
    uint32_t codePoint = 0;
    uint32_t smallest = 0;
    if ((first & 0xe0) == 0xc0) {
        length = 2;
        codePoint = first & 0x1f;
        smallest = 0x80;
    } else if ((first & 0xf0) == 0xe0) {
        length = 3;
        codePoint = first & 0x0f;
        smallest = 0x800;
    } else if ((first & 0xf8) == 0xf0) {
        length = 4;
        codePoint = first & 0x07;
        smallest = 0x10000;
    }
    if (length == 0 || length > text.size()) {
        return {0, 0};
    }
    for (size_t i = 1; i < length; ++i) {
        if ((byteAt(i) & 0xc0) != 0x80) {
            return {0, 0};
        }
        codePoint = codePoint << 6 | (byteAt(i) & 0x3f);
    }
    const bool surrogate = codePoint >= 0xd800 && codePoint <= 0xdfff;
    if (codePoint < smallest || codePoint > 0x10ffff || surrogate) {
        return {0, 0};
    }
    return {length, codePoint};
}

// Characters that move the cursor, change the terminal's state or reorder the text around them.
bool ActsOnTerminal(uint32_t codePoint) {
    return codePoint < 0x20 || (codePoint >= 0x7f && codePoint <= 0x9f) || codePoint == 0x61c ||
           (codePoint >= 0x200b && codePoint <= 0x200f) ||
           (codePoint >= 0x2028 && codePoint <= 0x202e) ||
           (codePoint >= 0x2060 && codePoint <= 0x206f) || codePoint == 0xfeff;
}

}  // namespace

std::string EscapeForTerminal(std::string_view text) {
    std::string escaped;
    escaped.reserve(text.size());
    while (!text.empty()) {
        const Utf8Character character = DecodeUtf8(text);
        const size_t length = character.length == 0 ? 1 : character.length;
        if (character.length == 0 || ActsOnTerminal(character.codePoint)) {
            for (const char byte : text.substr(0, length)) {
                escaped += StringPrintf("\\x%02x", static_cast<unsigned char>(byte));
            }
        } else if (character.codePoint == '\\') {
            escaped += "\\\\";
        } else {
            escaped += text.substr(0, length);
        }
        text.remove_prefix(length);
    }
    return escaped;
}

std::string PadRight(std::string text, size_t width) {
    size_t characters = 0;
    for (const char byte : text) {
        // Every byte but a continuation byte begins a character.
        if ((static_cast<unsigned char>(byte) & 0xc0) != 0x80) {
            ++characters;
        }
    }
    if (characters < width) {
        text.append(width - characters, ' ');
    }
    return text;
}

std::string FormatBytes(int64_t bytes) {
    static constexpr const char* UNITS[] = {"KiB", "MiB", "GiB", "TiB"};
    auto value = static_cast<double>(bytes);
    if (std::abs(value) < 1024) {
        return StringPrintf("%lld B", static_cast<long long>(bytes));
    }
    const char* unit = UNITS[0];
    for (const char* next : UNITS) {
        // 1023.95 and more would be shown as 1024.0.
        if (std::abs(value) < 1023.95) {
            break;
        }
        value /= 1024;
        unit = next;
    }
    return StringPrintf("%.1f %s", value, unit);
}

std::string FormatSignedBytes(int64_t bytes) {
    return (bytes >= 0 ? "+" : "") + FormatBytes(bytes);
}

std::string FormatDuration(int64_t nanoseconds) {
    const auto value = static_cast<double>(nanoseconds);
    if (value < 1e6) {
        return StringPrintf("%.0f us", value / 1e3);
    }
    if (value < 1e9) {
        return StringPrintf("%.1f ms", value / 1e6);
    }
    if (value < 60e9) {
        return StringPrintf("%.2f s", value / 1e9);
    }
    const auto minutes = static_cast<long long>(nanoseconds / 60'000'000'000);
    if (minutes < 60) {
        return StringPrintf("%lld m %02lld s", minutes,
                            static_cast<long long>(nanoseconds / 1'000'000'000 % 60));
    }
    return StringPrintf("%lld h %02lld m", minutes / 60, minutes % 60);
}

}  // namespace Tesu::Bpf
