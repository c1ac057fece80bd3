// SPDX-License-Identifier: Apache-2.0
#include "loader/tracepoint_format.h"

#include <android-base/file.h>
#include <android-base/strings.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>

namespace Tesu::Bpf {

namespace {

constexpr std::string_view FIELD_PREFIX = "field:";
constexpr std::string_view LOCATED_PREFIX = "__data_loc ";

// The number after `label` in one piece of a line ("offset:8").
bool ParseNumber(std::string_view piece, std::string_view label, uint32_t* number) {
    if (!android::base::ConsumePrefix(&piece, label)) {
        return false;
    }
    const char* const end = piece.data() + piece.size();
    const auto result = std::from_chars(piece.data(), end, *number);
    return result.ec == std::errc() && result.ptr == end;
}

// "unsigned short common_type", "char comm[16]" or "__data_loc char[] dst_path".
bool ParseDeclaration(std::string_view declaration, TracepointField* field) {
    field->isLocated = android::base::ConsumePrefix(&declaration, LOCATED_PREFIX);
    const size_t blank = declaration.rfind(' ');
    if (blank == std::string_view::npos) {
        return false;
    }
    std::string_view name = declaration.substr(blank + 1);
    name = name.substr(0, name.find('['));
    field->name = name;
    field->type = declaration.substr(0, blank);
    return !name.empty();
}

bool ParseField(std::string_view line, TracepointField* field) {
    const std::vector<std::string> pieces = android::base::Split(std::string(line), ";");
    if (pieces.size() < 4 || !ParseDeclaration(android::base::Trim(pieces[0]), field)) {
        return false;
    }
    uint32_t isSigned = 0;
    if (!ParseNumber(android::base::Trim(pieces[1]), "offset:", &field->offset) ||
        !ParseNumber(android::base::Trim(pieces[2]), "size:", &field->size) ||
        !ParseNumber(android::base::Trim(pieces[3]), "signed:", &isSigned)) {
        return false;
    }
    field->isSigned = isSigned != 0;
    return true;
}

}  // namespace

const TracepointField* FindField(const TracepointFormat& format, std::string_view name) {
    const auto found = std::find_if(format.begin(), format.end(),
                                    [&](const auto& field) { return field.name == name; });
    return found != format.end() ? &*found : nullptr;
}

bool ParseTracepointFormat(std::string_view text, TracepointFormat* format, std::string* error) {
    format->clear();
    for (const std::string& line : android::base::Split(std::string(text), "\n")) {
        const std::string trimmed = android::base::Trim(line);
        std::string_view content = trimmed;
        if (!android::base::ConsumePrefix(&content, FIELD_PREFIX)) {
            continue;
        }
        TracepointField field;
        if (!ParseField(content, &field)) {
            *error = "cannot understand the line \"" + trimmed + "\"";
            return false;
        }
        format->push_back(std::move(field));
    }
    if (format->empty()) {
        *error = "no fields";
        return false;
    }
    return true;
}

bool ReadTracepointFormat(const std::string& tracefsRoot, const std::string& tracepoint,
                          TracepointFormat* format, std::string* error) {
    const std::string path = tracefsRoot + "/events/" + tracepoint + "/format";
    std::string text;
    if (!android::base::ReadFileToString(path, &text)) {
        *error = path + ": " + strerror(errno);
        return false;
    }
    if (!ParseTracepointFormat(text, format, error)) {
        *error = path + ": " + *error;
        return false;
    }
    return true;
}

}  // namespace Tesu::Bpf
