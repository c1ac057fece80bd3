// SPDX-License-Identifier: Apache-2.0
#include "loader/tracepoint_format.h"

#include <android-base/file.h>
#include <android-base/parseint.h>
#include <android-base/strings.h>

#include <algorithm>
#include <regex>

namespace Tesu::Bpf {

namespace {

constexpr std::string_view FIELD_PREFIX = "field:";

// "unsigned short common_type;", "char comm[16];" or "__data_loc char[] dst_path;", each followed
// by "offset:8;" and "size:4;".
bool ParseField(const std::string& line, TracepointField* field) {
    static const std::regex FIELD(
        "(__data_loc )?(.*) ([^ \\[]+)(\\[.*)?;\\s*offset:(\\d+);\\s*size:(\\d+);.*");
    std::smatch parts;
    if (!std::regex_match(line, parts, FIELD)) {
        return false;
    }
    field->isLocated = parts[1].matched;
    field->type = parts[2];
    field->name = parts[3];
    return android::base::ParseUint(parts[5].str(), &field->offset) &&
           android::base::ParseUint(parts[6].str(), &field->size);
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
        if (!trimmed.starts_with(FIELD_PREFIX)) {
            continue;
        }
        TracepointField field;
        if (!ParseField(trimmed.substr(FIELD_PREFIX.size()), &field)) {
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
        return SystemFailure(path);
    }
    auto format = ParseTracepointFormat(text);
    return format ? format : Failure(path + ": " + format.error());
}

}  // namespace Tesu::Bpf
