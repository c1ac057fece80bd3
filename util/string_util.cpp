// SPDX-License-Identifier: Apache-2.0
#include "util/string_util.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>

namespace Tesu::Bpf {

bool IsDigits(const std::string& text) {
    return !text.empty() &&
           std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

std::string ConvertToHexString(const char* bytes, int count) {
    static constexpr char DIGITS[] = "0123456789abcdef";
    std::string text;
    if (count > 0) {
        text.reserve(static_cast<size_t>(count) * 3);
    }
    for (int i = 0; i < count; ++i) {
        const auto byte = static_cast<unsigned char>(bytes[i]);
        text += {DIGITS[byte >> 4], DIGITS[byte & 0xf], ' '};
    }
    return text;
}

std::string StringPrintf(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    va_list measured;
    va_copy(measured, arguments);
    const int length = std::vsnprintf(nullptr, 0, format, measured);
    va_end(measured);
    std::string text;
    if (length > 0) {
        text.resize(static_cast<size_t>(length));
        // The string keeps room for the NUL behind its last character.
        std::vsnprintf(text.data(), text.size() + 1, format, arguments);
    }
    va_end(arguments);
    return text;
}

std::vector<std::string> Split(const std::string& text, const std::string& separator) {
    std::vector<std::string> pieces;
    size_t start = 0;
    while (!separator.empty()) {
        const size_t end = text.find(separator, start);
        if (end == std::string::npos) {
            break;
        }
        if (end > start) {
            pieces.push_back(text.substr(start, end - start));
        }
        start = end + separator.size();
    }
    if (start < text.size()) {
        pieces.push_back(text.substr(start));
    }
    return pieces;
}

}  // namespace Tesu::Bpf
