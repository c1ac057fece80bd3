// SPDX-License-Identifier: Apache-2.0
#include "loader/tracepoint_format.h"

#include <android-base/file.h>
#include <android-base/strings.h>

#include <algorithm>
#include <charconv>
#include <system_error>

namespace Tesu::Bpf {

namespace {

constexpr std::string_view FIELD_PREFIX = "field:";

// Takes the number behind that word off the text, and the ";" that ends it.
bool TakeNumber(std::string_view word, std::string_view* text, uint32_t* number) {
    text->remove_prefix(std::min(text->find_first_not_of(" \t"), text->size()));
    if (!android::base::ConsumePrefix(text, word)) {
        return false;
    }
    const auto parsed = std::from_chars(text->data(), text->data() + text->size(), *number);
    text->remove_prefix(static_cast<size_t>(parsed.ptr - text->data()));
    return parsed.ec == std::errc() && android::base::ConsumePrefix(text, ";");
}

// "unsigned short common_type;", "char comm[16];" or "__data_loc char[] dst_path;", each followed
// by "offset:8;" and "size:4;". By hand: a regular expression's stack is as deep as a line is long.
bool ParseField(std::string_view line, TracepointField* field) {
    field->isLocated = android::base::ConsumePrefix(&line, "__data_loc ");
    const std::string_view declaration = line.substr(0, line.find(';'));
    const size_t blank = declaration.rfind(' ');
    if (blank == std::string_view::npos || declaration.size() == line.size()) {
        return false;
    }
    line.remove_prefix(declaration.size() + 1);
    const std::string_view name = declaration.substr(blank + 1);
    field->type = declaration.substr(0, blank);
    field->name = name.substr(0, name.find('['));
    return !field->name.empty() && TakeNumber("offset:", &line, &field->offset) &&
           TakeNumber("size:", &line, &field->size);
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
        std::string_view rest = trimmed;
        if (!android::base::ConsumePrefix(&rest, FIELD_PREFIX)) {
            continue;
        }
        TracepointField field;
        if (!ParseField(rest, &field)) {
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
