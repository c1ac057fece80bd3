// SPDX-License-Identifier: Apache-2.0
#include "client/dump_text.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <optional>

#include "client/text/terminal_text.h"

namespace Tesu::Bpf {

namespace {

constexpr std::string_view TASKS_TITLE = "============ DUMP ALL TESU TASKS INFO (count: ";
// A name of the columns that only the full dumps have.
constexpr std::string_view OLD_COLUMN = "oldThreadNum";
// Every row of a task ends with the unit of its last size and the time in a field of this width: no
// name is long enough to look like that.
constexpr std::string_view LAST_UNIT = "KB";
constexpr size_t TIME_WIDTH = 20;

constexpr std::string_view COUNTERS_START = "EventCount, ";
constexpr std::string_view COUNTERS_LAST_COLUMN = "PollCount, ";
constexpr std::string_view COUNTERS_LINE_END = "\r\n";

// The line without its end; none: there is no whole line.
std::optional<std::string_view> CutLine(std::string_view* text) {
    const size_t end = text->find('\n');
    if (end == std::string_view::npos) {
        return std::nullopt;
    }
    const std::string_view line = text->substr(0, end);
    text->remove_prefix(end + 1);
    return line;
}

std::optional<uint64_t> NumberAt(std::string_view text) {
    uint64_t number = 0;
    if (std::from_chars(text.data(), text.data() + text.size(), number).ec != std::errc()) {
        return std::nullopt;
    }
    return number;
}

bool EndsTaskRow(std::string_view line) {
    if (line.size() < TIME_WIDTH + LAST_UNIT.size()) {
        return false;
    }
    const std::string_view time = line.substr(line.size() - TIME_WIDTH);
    return time.find_first_not_of(" -0123456789") == std::string_view::npos && time.back() != ' ' &&
           line.substr(0, line.size() - TIME_WIDTH).ends_with(LAST_UNIT);
}

bool IsWholeTaskDump(std::string_view text, bool isFull, bool withKernelTasks) {
    const std::optional<std::string_view> title = CutLine(&text);
    if (!title || !title->starts_with(TASKS_TITLE)) {
        return false;
    }
    const std::optional<uint64_t> count = NumberAt(title->substr(TASKS_TITLE.size()));
    const std::optional<std::string_view> columns = CutLine(&text);
    if (!count || !columns || (columns->find(OLD_COLUMN) != std::string_view::npos) != isFull) {
        return false;
    }
    uint64_t rows = 0;
    bool isAtRowEnd = true;
    while (const std::optional<std::string_view> line = CutLine(&text)) {
        isAtRowEnd = EndsTaskRow(*line);
        rows += isAtRowEnd ? 1 : 0;
    }
    return text.empty() && isAtRowEnd && (withKernelTasks ? rows == *count : rows <= *count);
}

bool IsWholeCounterDump(std::string_view text) {
    const std::optional<std::string_view> head = CutLine(&text);
    const size_t numbers = head ? head->rfind(COUNTERS_LAST_COLUMN) : std::string_view::npos;
    if (numbers == std::string_view::npos || !head->starts_with(COUNTERS_START)) {
        return false;
    }
    const std::optional<uint64_t> range =
        NumberAt(head->substr(numbers + COUNTERS_LAST_COLUMN.size()));
    if (!range || (!text.empty() && !text.ends_with(COUNTERS_LINE_END))) {
        return false;
    }
    // The running numbers of the newest and the oldest second.
    const auto newest = static_cast<uint32_t>(*range);
    const auto oldest = static_cast<uint32_t>(*range >> 32);
    const uint64_t expected = newest >= oldest ? uint64_t{newest} - oldest + 1 : 0;
    const auto rows = static_cast<uint64_t>(std::count(text.begin(), text.end(), '\n'));
    return rows == expected;
}

}  // namespace

bool IsWholeDump(DumpKind kind, std::string_view text) {
    switch (kind) {
        case DumpKind::COUNTERS:
            return IsWholeCounterDump(text);
        case DumpKind::TASKS_FULL:
            return IsWholeTaskDump(text, true, true);
        case DumpKind::TASKS_FULL_NO_KERNEL:
            return IsWholeTaskDump(text, true, false);
        case DumpKind::TASKS_NORMAL:
            return IsWholeTaskDump(text, false, true);
        case DumpKind::TASKS_NORMAL_NO_KERNEL:
            return IsWholeTaskDump(text, false, false);
    }
    return false;
}

std::string EscapeDump(std::string_view text) {
    std::string escaped;
    escaped.reserve(text.size());
    while (!text.empty()) {
        const size_t end = std::min(text.find('\n'), text.size());
        std::string_view line = text.substr(0, end);
        if (line.ends_with('\r')) {
            line.remove_suffix(1);
        }
        escaped += EscapeForTerminal(line);
        if (end < text.size()) {
            escaped += '\n';
        }
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return escaped;
}

}  // namespace Tesu::Bpf
