// SPDX-License-Identifier: Apache-2.0
#include "loader/tracepoint_format.h"

#include <android-base/file.h>
#include <android-base/parseint.h>
#include <android-base/strings.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace Tesu::Bpf {

namespace {

constexpr std::string_view FIELD_PREFIX = "field:";
constexpr std::string_view LOCATED_PREFIX = "__data_loc ";

// The number after `label` in one piece of a line ("offset:8").
bool ParseLabelled(std::string_view piece, std::string_view label, uint32_t* number) {
    return android::base::ConsumePrefix(&piece, label) &&
           android::base::ParseUint(std::string(piece), number);
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
    if (pieces.size() < 3 || !ParseDeclaration(android::base::Trim(pieces[0]), field)) {
        return false;
    }
    return ParseLabelled(android::base::Trim(pieces[1]), "offset:", &field->offset) &&
           ParseLabelled(android::base::Trim(pieces[2]), "size:", &field->size);
}

}  // namespace

const TracepointField* FindField(const TracepointFormat& format, std::string_view name) {
    const auto found = std::find_if(format.begin(), format.end(),
                                    [&](const auto& field) { return field.name == name; });
    return found != format.end() ? &*found : nullptr;
}

Result<TracepointFormat> ParseTracepointFormat(std::string_view text) {
    TracepointFormat format;
    for (const std::string& line : android::base::Split(std::string(text), "\n")) {
        const std::string trimmed = android::base::Trim(line);
        std::string_view content = trimmed;
        if (!android::base::ConsumePrefix(&content, FIELD_PREFIX)) {
            continue;
        }
        TracepointField field;
        if (!ParseField(content, &field)) {
            return Failure("cannot understand the line \"" + trimmed + "\"");
        }
        format.push_back(std::move(field));
    }
    if (format.empty()) {
        return Failure("no fields");
    }
    return format;
}

Result<TracepointFormat> ReadTracepointFormat(const std::string& tracefsRoot,
                                              const std::string& tracepoint) {
    const std::string path = tracefsRoot + "/events/" + tracepoint + "/format";
    std::string text;
    if (!android::base::ReadFileToString(path, &text)) {
        return Failure(path + ": " + strerror(errno));
    }
    auto format = ParseTracepointFormat(text);
    return format ? format : Failure(path + ": " + format.error());
}

}  // namespace Tesu::Bpf
