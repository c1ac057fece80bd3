// SPDX-License-Identifier: Apache-2.0
#include "client/text/terminal_text.h"

#include <langinfo.h>
#include <utf8proc.h>
#include <wchar.h>

#include <algorithm>
#include <clocale>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "util/string_util.h"

namespace Tesu::Bpf {

namespace {

struct Character {
    std::string_view bytes;
    int32_t codePoint = 0;
    bool isShown = false;  // false: must not reach a terminal
};

bool IsShown(int32_t codePoint) {
    switch (utf8proc_category(codePoint)) {
        case UTF8PROC_CATEGORY_CC:
        case UTF8PROC_CATEGORY_CF:
        case UTF8PROC_CATEGORY_CS:
        case UTF8PROC_CATEGORY_CN:
        case UTF8PROC_CATEGORY_ZL:
        case UTF8PROC_CATEGORY_ZP:
            return false;
        default:
            return true;
    }
}

// The first character, taken off the text; one byte where no UTF-8 character begins.
Character TakeCharacter(std::string_view* text) {
    Character character;
    const utf8proc_ssize_t length =
        utf8proc_iterate(reinterpret_cast<const utf8proc_uint8_t*>(text->data()),
                         static_cast<utf8proc_ssize_t>(text->size()), &character.codePoint);
    character.bytes = text->substr(0, length > 0 ? static_cast<size_t>(length) : 1);
    character.isShown = length > 0 && IsShown(character.codePoint);
    text->remove_prefix(character.bytes.size());
    return character;
}

// In cells. The C library knows best what the terminal library counts, but of its character set
// only. Not positive: no cell of its own, or not known there.
int WidthOf(int32_t codePoint) {
    return IsUnicodeShown() ? wcwidth(static_cast<wchar_t>(codePoint))
                            : utf8proc_charwidth(codePoint);
}

}  // namespace

void ChooseCharacterSet() {
    const auto isSet = [](const char* name) {
        const char* const value = std::getenv(name);
        return value != nullptr && *value != '\0';
    };
    const bool isChosen = isSet("LC_ALL") || isSet("LC_CTYPE") || isSet("LANG");
    if (std::setlocale(LC_CTYPE, isChosen ? "" : "C.UTF-8") == nullptr) {
        std::setlocale(LC_CTYPE, "C");
    }
}

bool IsUnicodeShown() {
    return std::strcmp(nl_langinfo(CODESET), "UTF-8") == 0;
}

std::string EscapeForTerminal(std::string_view text) {
    std::string escaped;
    escaped.reserve(text.size());
    while (!text.empty()) {
        const Character character = TakeCharacter(&text);
        if (!character.isShown) {
            for (const char byte : character.bytes) {
                escaped += StringPrintf("\\x%02x", static_cast<unsigned char>(byte));
            }
        } else if (character.codePoint == '\\') {
            escaped += "\\\\";
        } else {
            escaped += character.bytes;
        }
    }
    return escaped;
}

std::string ToValidUtf8(std::string_view text) {
    std::string valid;
    while (!text.empty()) {
        const Character character = TakeCharacter(&text);
        valid += character.codePoint < 0 ? "\uFFFD" : character.bytes;
    }
    return valid;
}

std::string PadRight(std::string text, size_t width) {
    size_t used = 0;
    for (std::string_view left = text; !left.empty();) {
        used += static_cast<size_t>(std::max(0, WidthOf(TakeCharacter(&left).codePoint)));
    }
    text.append(width - std::min(width, used), ' ');
    return text;
}

std::string FitToWidth(std::string_view text, size_t width, Align align) {
    std::string shown;
    size_t used = 0;
    // Where the text is to be cut if it does not fit: the last place that leaves a cell for "~".
    size_t cutAt = 0;
    size_t cutUsed = 0;
    const bool isUnicodeShown = IsUnicodeShown();
    while (!text.empty()) {
        const Character character = TakeCharacter(&text);
        const bool isKept = character.isShown && (isUnicodeShown || character.codePoint < 0x80);
        const int cells = isKept ? WidthOf(character.codePoint) : 0;
        const size_t taken = cells > 0 ? static_cast<size_t>(cells) : 1;
        if (used + taken > width) {
            shown.resize(cutAt);
            shown += width > 0 ? "~" : "";
            used = std::min(width, cutUsed + 1);
            break;
        }
        shown += cells > 0 ? character.bytes : "?";
        used += taken;
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

}  // namespace Tesu::Bpf
