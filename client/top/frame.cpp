// SPDX-License-Identifier: Apache-2.0
#include "client/top/frame.h"

#include <algorithm>
#include <utility>

#include "client/text/units.h"
#include "client/top/columns.h"
#include "util/string_util.h"

namespace Tesu::Bpf {

namespace {

// From this height on a frame has all of its parts; below it has fewer.
constexpr size_t FULL_HEIGHT = 10;
constexpr size_t SMALL_HEIGHT = 4;

std::vector<std::string> HelpLines(bool isRecording) {
    std::string keys;
    for (const Column* const column : OrderColumns()) {
        keys += {OrderKey(*column, isRecording), ' '};
    }
    std::vector<std::string> lines = {
        "",
        "  q, Ctrl-C      quit",
        "  " + keys + " order by " + ListOrders(),
        "  r              the other way round",
        "  /              show only names with this text, or pids that begin with it",
        "  Esc            show all again",
        "  k              show or hide kernel threads",
        "  space          stand still, go on",
        isRecording ? "  left, right    10 seconds back or on; t goes to a time"
                    : "  R              read /proc anew",
        "  arrows, PgUp, PgDn, Home, End",
        ""};
    for (const Column& column : AllColumns()) {
        const char* title = column.title;
        for (const std::string& text : Split(column.help, "\n")) {
            lines.push_back(StringPrintf("  %-11s  %s", title, text.c_str()));
            title = "";
        }
    }
    lines.insert(lines.end(), {"", "  any key        back"});
    return lines;
}

std::string KeysText(bool isRecording) {
    std::string keys = std::string(" q quit  ? help  / filter  space pause  ") +
                       (isRecording ? "<- -> 10 s  t time  " : "") + "r reverse  order:";
    for (const Column* const column : OrderColumns()) {
        keys += StringPrintf(" %c %s ", OrderKey(*column, isRecording), column->order.name);
    }
    return keys;
}

Style CellStyle(const ProcessRow& row, const Column& column) {
    if (column.isOdd != nullptr && column.isOdd(row)) {
        return Style::WARNING;
    }
    return row.isKernelThread && column.style != Style::WARNING ? Style::FAINT : column.style;
}

std::pair<const char*, Style> Describe(uint32_t connection) {
    switch (connection) {
        case TESUBPF_CONNECTED:
            return {"live", Style::GOOD};
        case TESUBPF_WAITING:
            return {"no daemon: figures stand still", Style::BAD};
        case TESUBPF_LOST:
            return {"connection lost: figures stand still", Style::BAD};
        case TESUBPF_REFUSED:
            return {"the daemon refuses events: figures stand still", Style::BAD};
        default:
            return {"connecting", Style::WARNING};
    }
}

StyledLine StatusLine(const FrameState& state, const ProcessTotals& totals, size_t width) {
    LineBuilder line(width);
    line.add(" tesubpf top  ", Style::STRONG);
    const auto [text, style] = Describe(state.connection);
    if (state.isRecording) {
        line.add(state.isAtEnd ? "recording, at its end  " : "recording  ", Style::STRONG);
    }
    if (!state.isRecording || state.connection != TESUBPF_CONNECTED) {
        line.add(text, style);
    }
    if (state.connection == TESUBPF_LOST && !state.lostReason.empty()) {
        line.add(" (" + state.lostReason + ")", style);
    }
    if (totals.recordsLost > 0) {
        line.add(StringPrintf("  %llu records LOST",
                              static_cast<unsigned long long>(totals.recordsLost)),
                 totals.isLosing ? Style::BAD : Style::WARNING);
    }
    if (state.isPaused) {
        line.add("  ");
        line.add("PAUSED", Style::WARNING);
    }
    if (!state.request.filter.empty() && !state.isFilterTyped) {
        line.add("  filter ");
        const std::string& filter = state.request.filter;
        line.add(filter, std::min<size_t>(filter.size(), 24), Align::LEFT, Style::STRONG);
    }
    if (line.room() > state.clock.size()) {
        line.addBlanks(line.room() - state.clock.size() - 1);
        line.add(state.clock, Style::FAINT);
    }
    return line.endWith("");
}

StyledLine TotalsLine(const ProcessTotals& totals, size_t width) {
    LineBuilder line(width);
    const auto add = [&line](const char* name, const std::string& value) {
        line.add(std::string(" ") + name + " ", Style::FAINT);
        line.add(value + " ", Style::STRONG);
    };
    add("processes", std::to_string(totals.processes));
    add("threads", std::to_string(totals.threads));
    add("kernel", std::to_string(totals.kernelThreads));
    add("forks", StringPrintf("%.0f/s", totals.forksPerSecond));
    add("exits", StringPrintf("%.0f/s", totals.exitsPerSecond));
    add("records", StringPrintf("%.0f/s", totals.recordsPerSecond));
    return line.endWith("");
}

StyledLine LoopsLine(const std::vector<CrashLoops::Loop>& loops, size_t width) {
    LineBuilder line(width);
    line.add(" crash loops ", Style::FAINT);
    if (loops.empty()) {
        return line.endWith("none", Style::FAINT);
    }
    for (const CrashLoops::Loop& loop : loops) {
        const std::string figures = StringPrintf(" %ux ", loop.exits);
        const std::string lifetime = FormatDuration(loop.lastLifetime) + "   ";
        // A name that is cut would be another name.
        if (loop.name.size() + figures.size() + lifetime.size() > line.room()) {
            break;
        }
        line.add(loop.name, Style::STRONG);
        line.add(figures, Style::WARNING);
        line.add(lifetime, Style::FAINT);
    }
    return line.endWith("");
}

StyledLine TitleLine(const std::vector<ShownColumn>& columns, ProcessOrder order, size_t width) {
    LineBuilder line(width);
    for (const auto& [column, cells] : columns) {
        const bool isSorted = order != nullptr && column->order.compare == order;
        line.add(column->title, cells, column->align,
                 isSorted ? Style::SORTED_TITLE : Style::TITLE);
        line.addBlanks(COLUMN_GAP, Style::TITLE);
    }
    return line.endWith("", Style::TITLE);
}

StyledLine RowLine(const ProcessRow& row, const std::vector<ShownColumn>& columns, size_t width) {
    LineBuilder line(width);
    for (const auto& [column, cells] : columns) {
        line.add(column->text(row, cells), cells, column->align, CellStyle(row, *column));
        line.addBlanks(COLUMN_GAP);
    }
    return line.endWith("");
}

StyledLine LastLine(const ProcessView& view, const FrameState& state, size_t width) {
    LineBuilder line(width);
    if (state.isFilterTyped) {
        line.add(" filter: ", Style::STRONG);
        return line.endWith(state.request.filter + "_");
    }
    if (state.isTimeTyped) {
        line.add(" go to (+M:SS, H:MM:SS or seconds): ", Style::STRONG);
        return line.endWith(state.time + "_");
    }
    if (!state.message.empty()) {
        return line.endWith(" " + state.message, Style::WARNING);
    }
    if (view.rows.size() < view.matching) {
        line.add(StringPrintf(" %zu-%zu of %zu ", view.firstRow + 1,
                              view.firstRow + view.rows.size(), view.matching));
    }
    return line.endWith(KeysText(state.isRecording), Style::FAINT);
}

}  // namespace

char OrderKey(const Column& column, bool isRecording) {
    return isRecording && column.order.key == 't' ? 'T' : column.order.key;
}

size_t FrameChrome(size_t height) {
    if (height >= FULL_HEIGHT) {
        return 5;  // status, totals, crash loops, titles, keys
    }
    return height >= SMALL_HEIGHT ? 2 : std::min<size_t>(height, 1);
}

std::vector<StyledLine> MakeFrame(const ProcessView& view, const FrameState& state, size_t width,
                                  size_t height) {
    std::vector<StyledLine> lines;
    if (width == 0 || height == 0) {
        return lines;
    }
    lines.push_back(StatusLine(state, view.totals, width));
    const bool isFull = height >= FULL_HEIGHT;
    if (isFull) {
        lines.push_back(TotalsLine(view.totals, width));
        lines.push_back(LoopsLine(view.loops, width));
    }
    if (state.isHelpShown) {
        for (const std::string& text : HelpLines(state.isRecording)) {
            lines.push_back(LineBuilder(width).endWith(text));
        }
        lines.resize(std::min(lines.size(), height));
        return lines;
    }
    const std::vector<ShownColumn> columns = LayOutColumns(width);
    if (height >= SMALL_HEIGHT) {
        lines.push_back(TitleLine(columns, state.request.order, width));
    }
    const size_t rowsEnd = height - (isFull ? 1 : 0);
    for (const ProcessRow& row : view.rows) {
        if (lines.size() >= rowsEnd) {
            break;
        }
        lines.push_back(RowLine(row, columns, width));
    }
    // A filter must be seen while it is typed, however small the terminal.
    if (isFull) {
        lines.resize(rowsEnd, LineBuilder(width).endWith(""));
        lines.push_back(LastLine(view, state, width));
    } else if (state.isFilterTyped || state.isTimeTyped) {
        lines.front() = LastLine(view, state, width);
    }
    return lines;
}

std::string MakePlainText(const ProcessView& view, const FrameState& state, size_t width) {
    const size_t height = std::max(view.rows.size() + FrameChrome(FULL_HEIGHT), FULL_HEIGHT);
    std::vector<StyledLine> lines = MakeFrame(view, state, width, height);
    // Without the keys, and the empty lines of a screen that is higher than the table.
    lines.resize(view.rows.size() + FrameChrome(FULL_HEIGHT) - 1);
    std::string text;
    for (const StyledLine& line : lines) {
        std::string plain;
        for (const Span& span : line) {
            plain += span.text;
        }
        text += TrimRight(std::move(plain)) + "\n";
    }
    return text;
}

}  // namespace Tesu::Bpf
