// SPDX-License-Identifier: Apache-2.0
#include "client/top_frame.h"

#include <algorithm>
#include <array>
#include <utility>

#include "client/text/terminal_text.h"
#include "client/text/units.h"
#include "client/top/sparkline.h"
#include "client/top_layout.h"
#include "util/monotonic_clock.h"
#include "util/string_util.h"

namespace Tesu::Bpf {

namespace {

struct ColumnKind {
    ColumnId id;
    const char* title;
    Align align;
    std::optional<SortKey> sortKey;
};

constexpr ColumnKind COLUMN_KINDS[] = {
    {ColumnId::PID, "PID", Align::RIGHT, SortKey::PID},
    {ColumnId::PARENT, "PARENT", Align::RIGHT, std::nullopt},
    {ColumnId::USER, "UID", Align::RIGHT, std::nullopt},
    {ColumnId::NAME, "NAME", Align::LEFT, SortKey::NAME},
    {ColumnId::MEMORY, "MEMORY", Align::RIGHT, SortKey::MEMORY},
    {ColumnId::CHANGE, "CHANGE/MIN", Align::RIGHT, SortKey::CHANGE},
    {ColumnId::ANON, "ANON", Align::RIGHT, std::nullopt},
    {ColumnId::FILE_PAGES, "FILE", Align::RIGHT, std::nullopt},
    {ColumnId::SHMEM, "SHMEM", Align::RIGHT, std::nullopt},
    {ColumnId::SWAP, "SWAP", Align::RIGHT, std::nullopt},
    {ColumnId::THREADS, "THR", Align::RIGHT, SortKey::THREADS},
    {ColumnId::FDS, "FDS", Align::RIGHT, SortKey::FDS},
    {ColumnId::AGE, "AGE", Align::RIGHT, SortKey::AGE},
    {ColumnId::HISTORY, "HISTORY", Align::RIGHT, std::nullopt},
    {ColumnId::HINT, "HINT", Align::LEFT, std::nullopt},
};

// Below this width a hint is one letter for each kind.
constexpr size_t HINT_WORDS_WIDTH = 12;
// From this height on a frame has all of its parts; below it has fewer.
constexpr size_t FULL_HEIGHT = 10;
constexpr size_t SMALL_HEIGHT = 4;

constexpr const char* KEYS =
    " q quit  ? help  / filter  space pause  r reverse  order: m memory  c change  t threads  f "
    "fds  "
    "a age  p pid  n name";

constexpr const char* HELP[] = {
    "",
    "  q, Ctrl-C      quit",
    "  m c t f a p n  order by memory, change, threads, descriptors, age, pid, name",
    "  r              the other way round",
    "  /              show only names with this text, or pids that begin with it",
    "  Esc            show all again",
    "  k              show or hide kernel threads",
    "  space          stand still, go on",
    "  R              read /proc anew",
    "  arrows, PgUp, PgDn, Home, End",
    "",
    "  MEMORY       resident: anonymous, file and shared memory",
    "  CHANGE/MIN   of it within the last minute; HISTORY: that minute, a bar a second",
    "  FDS          as first seen, then as the daemon tells where its kernel can",
    "  HINT         g  growing: memory rises step by step",
    "               t  new threads: 30 or more within 10 seconds",
    "               y  young exits: 3 or more of this name within a minute, after less",
    "                  than 10 seconds each; on top with the last one's life",
    "",
    "  any key        back",
};

const ColumnKind& KindOf(ColumnId id) {
    return *std::find_if(std::begin(COLUMN_KINDS), std::end(COLUMN_KINDS),
                         [id](const ColumnKind& kind) { return kind.id == id; });
}

std::string FormatSize(int64_t bytes) {
    return bytes == 0 ? "-" : FormatBytes(bytes);
}

std::string FormatChange(int64_t bytes) {
    return bytes == 0 ? "-" : FormatSignedBytes(bytes);
}

std::string FormatRate(double perSecond) {
    return StringPrintf("%.0f/s", perSecond);
}

std::string DescribeHints(const ProcessRow& row, size_t width) {
    std::string words;
    std::string letters;
    const auto add = [&](const std::string& word, char letter) {
        words += (words.empty() ? "" : ", ") + word;
        letters += letter;
    };
    if (row.isGrowing) {
        add("growing", 'g');
    }
    if (row.newThreads > 0) {
        add(StringPrintf("%lld new threads", static_cast<long long>(row.newThreads)), 't');
    }
    if (row.youngExits > 0) {
        add(StringPrintf("%u young exits", row.youngExits), 'y');
    }
    return width < HINT_WORDS_WIDTH ? letters : words;
}

std::string CellText(const ProcessRow& row, const Column& column) {
    switch (column.id) {
        case ColumnId::PID:
            return std::to_string(row.pid);
        case ColumnId::PARENT:
            return std::to_string(row.ppid);
        case ColumnId::USER:
            return row.uid < 0 ? "-" : std::to_string(row.uid);
        case ColumnId::NAME:
            return EscapeForTerminal(row.name);
        case ColumnId::MEMORY:
            return FormatSize(row.resident);
        case ColumnId::CHANGE:
            return FormatChange(row.change);
        case ColumnId::ANON:
            return FormatSize(row.memory[MEMORY_ANON]);
        case ColumnId::FILE_PAGES:
            return FormatSize(row.memory[MEMORY_FILE]);
        case ColumnId::SHMEM:
            return FormatSize(row.memory[MEMORY_SHMEM]);
        case ColumnId::SWAP:
            return FormatSize(row.memory[MEMORY_SWAP]);
        case ColumnId::THREADS:
            return std::to_string(row.threads);
        case ColumnId::FDS:
            return row.openFds ? std::to_string(*row.openFds) : "-";
        case ColumnId::AGE:
            return FormatAge(row.age);
        case ColumnId::HISTORY:
            return row.resident == 0 ? "" : Sparkline(row.history, column.width);
        case ColumnId::HINT:
            return DescribeHints(row, column.width);
    }
    return "";
}

Style CellStyle(const ProcessRow& row, ColumnId id) {
    const bool isWarning = id == ColumnId::HINT ||
                           (row.isGrowing && (id == ColumnId::CHANGE || id == ColumnId::HISTORY)) ||
                           (row.newThreads > 0 && id == ColumnId::THREADS);
    if (isWarning) {
        return Style::WARNING;
    }
    if (row.isKernelThread) {
        return Style::FAINT;
    }
    return id == ColumnId::NAME ? Style::STRONG : Style::PLAIN;
}

// A line of spans, cut and filled up to the width.
class LineBuilder {
  public:
    explicit LineBuilder(size_t width) : left(width) {}

    void add(std::string_view text, size_t width, Align align, Style style) {
        const size_t fitting = std::min(width, left);
        if (fitting > 0) {
            line.push_back({FitToWidth(text, fitting, align), style});
            left -= fitting;
        }
    }

    // As wide as it is: ASCII only.
    void add(const std::string& text, Style style = Style::PLAIN) {
        add(text, text.size(), Align::LEFT, style);
    }

    // Text of any characters, up to the end of the line.
    FrameLine endWith(std::string_view text, Style style) {
        add(text, left, Align::LEFT, style);
        return std::move(line);
    }

    FrameLine end() { return endWith("", Style::PLAIN); }

    size_t room() const { return left; }

  private:
    size_t left;
    FrameLine line;
};

std::pair<const char*, Style> Describe(Connection connection) {
    switch (connection) {
        case Connection::CONNECTING:
            return {"connecting", Style::WARNING};
        case Connection::CONNECTED:
            return {"live", Style::GOOD};
        case Connection::NO_SERVICE:
            return {"no daemon: figures stand still", Style::BAD};
        case Connection::LOST:
            return {"connection lost: figures stand still", Style::BAD};
        case Connection::REFUSED:
            return {"the daemon refuses events: figures stand still", Style::BAD};
    }
    return {"", Style::PLAIN};
}

FrameLine StatusLine(const FrameState& state, size_t width) {
    LineBuilder line(width);
    line.add(" tesubpf top  ", Style::STRONG);
    const auto [text, style] = Describe(state.connection);
    line.add(text, style);
    if (state.isPaused) {
        line.add("  ");
        line.add("PAUSED", Style::WARNING);
    }
    if (!state.request.filter.empty() && !state.isFilterTyped) {
        line.add("  filter ");
        const std::string filter = EscapeForTerminal(state.request.filter);
        line.add(filter, std::min<size_t>(filter.size(), 24), Align::LEFT, Style::STRONG);
    }
    if (line.room() > state.clock.size()) {
        line.add("", line.room() - state.clock.size() - 1, Align::LEFT, Style::PLAIN);
        line.add(state.clock, Style::FAINT);
    }
    return line.end();
}

FrameLine TotalsLine(const ProcessTotals& totals, size_t width) {
    LineBuilder line(width);
    const auto add = [&line](const char* name, const std::string& value) {
        line.add(std::string(" ") + name + " ", Style::FAINT);
        line.add(value + " ", Style::STRONG);
    };
    add("processes", std::to_string(totals.processes));
    add("threads", std::to_string(totals.threads));
    add("kernel", std::to_string(totals.kernelThreads));
    add("forks", FormatRate(totals.forksPerSecond));
    add("exits", FormatRate(totals.exitsPerSecond));
    add("records", FormatRate(totals.recordsPerSecond));
    return line.end();
}

FrameLine LoopsLine(const std::vector<YoungExits::Loop>& loops, size_t width) {
    LineBuilder line(width);
    line.add(" young exits ", Style::FAINT);
    if (loops.empty()) {
        return line.endWith("none", Style::FAINT);
    }
    for (const YoungExits::Loop& loop : loops) {
        const std::string name = EscapeForTerminal(loop.name);
        const std::string figures = StringPrintf(" %ux ", loop.exits);
        const std::string lifetime = FormatDuration(loop.lastLifetime) + "   ";
        // A name that is cut would be another name.
        if (name.size() + figures.size() + lifetime.size() > line.room()) {
            break;
        }
        line.add(name, Style::STRONG);
        line.add(figures, Style::WARNING);
        line.add(lifetime, Style::FAINT);
    }
    return line.end();
}

FrameLine TitleLine(const std::vector<Column>& columns, SortKey sortKey, size_t width) {
    LineBuilder line(width);
    for (const Column& column : columns) {
        const ColumnKind& kind = KindOf(column.id);
        if (&column != &columns.front()) {
            line.add("", COLUMN_GAP, Align::LEFT, Style::TITLE);
        }
        line.add(kind.title, column.width, kind.align,
                 kind.sortKey == sortKey ? Style::SORTED_TITLE : Style::TITLE);
    }
    return line.endWith("", Style::TITLE);
}

FrameLine RowLine(const ProcessRow& row, const std::vector<Column>& columns, size_t width) {
    LineBuilder line(width);
    for (const Column& column : columns) {
        if (&column != &columns.front()) {
            line.add("", COLUMN_GAP, Align::LEFT, Style::PLAIN);
        }
        line.add(CellText(row, column), column.width, KindOf(column.id).align,
                 CellStyle(row, column.id));
    }
    return line.end();
}

FrameLine LastLine(const ProcessView& view, const FrameState& state, size_t width) {
    LineBuilder line(width);
    if (state.isFilterTyped) {
        line.add(" filter: ", Style::STRONG);
        return line.endWith(EscapeForTerminal(state.request.filter) + "_", Style::PLAIN);
    }
    if (view.rows.size() < view.matching) {
        line.add(StringPrintf(" %zu-%zu of %zu ", view.firstRow + 1,
                              view.firstRow + view.rows.size(), view.matching),
                 Style::PLAIN);
    }
    return line.endWith(KEYS, Style::FAINT);
}

}  // namespace

size_t FrameChrome(size_t height) {
    if (height >= FULL_HEIGHT) {
        return 5;  // status, totals, young exits, titles, keys
    }
    return height >= SMALL_HEIGHT ? 2 : std::min<size_t>(height, 1);
}

std::vector<FrameLine> MakeFrame(const ProcessView& view, const FrameState& state, size_t width,
                                 size_t height) {
    std::vector<FrameLine> lines;
    if (width == 0 || height == 0) {
        return lines;
    }
    lines.push_back(StatusLine(state, width));
    const bool isFull = height >= FULL_HEIGHT;
    if (isFull) {
        lines.push_back(TotalsLine(view.totals, width));
        lines.push_back(LoopsLine(view.loops, width));
    }
    if (state.isHelpShown) {
        for (const char* const text : HELP) {
            lines.push_back(LineBuilder(width).endWith(text, Style::PLAIN));
        }
        lines.resize(std::min(lines.size(), height));
        return lines;
    }
    const std::vector<Column> columns = LayOutColumns(width);
    if (height >= SMALL_HEIGHT) {
        lines.push_back(TitleLine(columns, state.request.sortKey, width));
    }
    const size_t rowsEnd = height - (isFull ? 1 : 0);
    for (const ProcessRow& row : view.rows) {
        if (lines.size() >= rowsEnd) {
            break;
        }
        lines.push_back(RowLine(row, columns, width));
    }
    if (isFull) {
        while (lines.size() < rowsEnd) {
            lines.push_back(LineBuilder(width).end());
        }
    }
    // A filter must be seen while it is typed, however small the terminal.
    if (isFull) {
        lines.push_back(LastLine(view, state, width));
    } else if (state.isFilterTyped) {
        lines.front() = LastLine(view, state, width);
    }
    return lines;
}

std::string MakePlainText(const ProcessView& view, const FrameState& state, size_t width) {
    const size_t height = std::max(view.rows.size() + FrameChrome(FULL_HEIGHT), FULL_HEIGHT);
    std::vector<FrameLine> lines = MakeFrame(view, state, width, height);
    // Without the keys, and the empty lines of a screen that is higher than the table.
    lines.resize(view.rows.size() + FrameChrome(FULL_HEIGHT) - 1);
    std::string text;
    for (const FrameLine& line : lines) {
        std::string plain;
        for (const Span& span : line) {
            plain += span.text;
        }
        text += TrimRight(std::move(plain)) + "\n";
    }
    return text;
}

std::string FormatAge(int64_t nanoseconds) {
    const auto seconds = static_cast<long long>(nanoseconds / NANOSECONDS_PER_SECOND);
    if (seconds < 60) {
        return StringPrintf("%llds", seconds);
    }
    if (seconds < 3600) {
        return StringPrintf("%lldm%02llds", seconds / 60, seconds % 60);
    }
    if (seconds < 86400) {
        return StringPrintf("%lldh%02lldm", seconds / 3600, seconds / 60 % 60);
    }
    return StringPrintf("%lldd%02lldh", seconds / 86400, seconds / 3600 % 24);
}

}  // namespace Tesu::Bpf
