// SPDX-License-Identifier: Apache-2.0
#include "util/string_util.h"

#include <android-base/stringprintf.h>

#include <algorithm>
#include <cstdarg>

namespace Tesu::Bpf {

bool IsDigits(const std::string& text) {
    return !text.empty() &&
           std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

std::string ConvertToHexString(const char* bytes, int count) {
    static constexpr char DIGITS[] = "0123456789abcdef";
    std::string text;
    for (int i = 0; i < count; ++i) {
        const auto byte = static_cast<unsigned char>(bytes[i]);
        text += {DIGITS[byte >> 4], DIGITS[byte & 0xf], ' '};
    }
    return text;
}

std::string StringPrintf(const char* format, ...) {
    std::string text;
    va_list arguments;
    va_start(arguments, format);
    android::base::StringAppendV(&text, format, arguments);
    va_end(arguments);
    return text;
}

std::vector<std::string> Split(const std::string& text, const std::string& separator) {
    std::vector<std::string> pieces;
    for (size_t start = 0; start < text.size();) {
        const size_t next = separator.empty() ? text.size() : text.find(separator, start);
        const size_t end = std::min(next, text.size());
        if (end > start) {
            pieces.push_back(text.substr(start, end - start));
        }
        start = end + separator.size();
    }
    return pieces;
}

}  // namespace Tesu::Bpf
