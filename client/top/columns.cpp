// SPDX-License-Identifier: Apache-2.0
#include "client/top/columns.h"

#include <strings.h>

#include <algorithm>
#include <iterator>

#include "client/text/units.h"
#include "client/top/sparkline.h"
#include "util/monotonic_clock.h"
#include "util/string_util.h"

namespace Tesu::Bpf {

namespace {

// Below this width a hint is one letter for each kind.
constexpr size_t HINT_WORDS_WIDTH = 12;

template <auto Member>
int SmallestFirst(const ProcessRow& a, const ProcessRow& b) {
    return (a.*Member > b.*Member ? 1 : 0) - (a.*Member < b.*Member ? 1 : 0);
}

template <auto Member>
int LargestFirst(const ProcessRow& a, const ProcessRow& b) {
    return SmallestFirst<Member>(b, a);
}

int ByName(const ProcessRow& a, const ProcessRow& b) {
    return strcasecmp(a.name.c_str(), b.name.c_str());
}

template <auto Member>
std::string Number(const ProcessRow& row, size_t /*width*/) {
    return std::to_string(row.*Member);
}

std::string FormatSize(int64_t bytes) {
    return bytes == 0 ? "-" : FormatBytes(bytes);
}

template <RssMember Member>
std::string Size(const ProcessRow& row, size_t /*width*/) {
    return FormatSize(row.memory[Member]);
}

std::string History(const ProcessRow& row, size_t width) {
    return row.resident == 0 ? "" : Sparkline(row.history, width);
}

// "12s", "3m05s", "2h05m", "12d03h": never more than 7 characters within 27 years.
std::string Age(const ProcessRow& row, size_t /*width*/) {
    const auto seconds = static_cast<long long>(row.age / NANOSECONDS_PER_SECOND);
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

std::string Hints(const ProcessRow& row, size_t width) {
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
    if (row.loopExits > 0) {
        add(StringPrintf("crash loop %ux", row.loopExits), 'c');
    }
    return width < HINT_WORDS_WIDTH ? letters : words;
}

template <auto Member>
bool IsSet(const ProcessRow& row) {
    return row.*Member != 0;
}

constexpr Align LEFT = Align::LEFT;
constexpr Align RIGHT = Align::RIGHT;
using Row = const ProcessRow&;

// From left to right.
// clang-format off
constexpr Column COLUMNS[] = {
    // title, align, width from which on it is shown, own width, text,
    //     order, style, when it is odd, help
    {"PID",        RIGHT,   7, {7},         Number<&ProcessRow::pid>,
         {SmallestFirst<&ProcessRow::pid>, "pid", 'p'}},
    {"PARENT",     RIGHT, 142, {7},         Number<&ProcessRow::ppid>},
    {"UID",        RIGHT, 160, {6},
         [](Row row, size_t) { return row.uid < 0 ? "-" : std::to_string(row.uid); }},
    {"NAME",       LEFT,   23, {15},
         [](Row row, size_t) { return row.name; },
         {ByName, "name", 'n'}, Style::STRONG},
    {"MEMORY",     RIGHT,  34, {10},
         [](Row row, size_t) { return FormatSize(row.resident); },
         {LargestFirst<&ProcessRow::resident>, "memory", 'm'}, Style::PLAIN, nullptr,
         "resident: anonymous, file and shared memory"},
    {"CHANGE/MIN", RIGHT,  52, {11},
         [](Row row, size_t) { return row.change == 0 ? "-" : FormatSignedBytes(row.change); },
         {LargestFirst<&ProcessRow::change>, "change", 'c'}, Style::PLAIN,
         IsSet<&ProcessRow::isGrowing>,
         "of it within the last minute; HISTORY: that minute, a bar a second"},
    {"ANON",       RIGHT, 111, {10},        Size<RSS_ANON>},
    {"FILE",       RIGHT, 134, {10},        Size<RSS_FILE>},
    {"SHMEM",      RIGHT, 171, {10},        Size<RSS_SHMEM>},
    {"SWAP",       RIGHT, 153, {10},        Size<RSS_SWAP>},
    {"THR",        RIGHT,  40, {5},         Number<&ProcessRow::threads>,
         {LargestFirst<&ProcessRow::threads>, "threads", 't'}, Style::PLAIN,
         IsSet<&ProcessRow::newThreads>},
    {"FDS",        RIGHT,  71, {5},
         [](Row row, size_t) { return row.openFds ? std::to_string(*row.openFds) : "-"; },
         {LargestFirst<&ProcessRow::openFds>, "fds", 'f'}, Style::PLAIN, nullptr,
         "as first seen, then as the daemon reports where its kernel can"},
    {"AGE",        RIGHT,  65, {7},         Age,
         {SmallestFirst<&ProcessRow::age>, "age", 'a'}},
    {"HISTORY",    RIGHT,  80, {8, 20, 60}, History,
         {}, Style::PLAIN, IsSet<&ProcessRow::isGrowing>},
    {"HINT",       LEFT,   57, {4, 16, 24}, Hints,
         {}, Style::WARNING, nullptr,
         "g  growing: memory rises step by step\n"
         "t  new threads: 30 or more within 10 seconds\n"
         "c  crash loop: 3 or more exits of this name within a minute, after less\n"
         "   than 10 seconds each; on top with the last one's life"},
};
// clang-format on
constexpr size_t USUAL_ORDER = 4;  // memory

// Whether, at the width of the table at which it comes, there is room for each column.
constexpr bool HaveRoom() {
    return std::all_of(std::begin(COLUMNS), std::end(COLUMNS), [](const Column& last) {
        size_t used = 0;
        for (const Column& column : COLUMNS) {
            if (column.fromWidth <= last.fromWidth) {
                used += column.width.least + (used == 0 ? 0 : COLUMN_GAP);
            }
        }
        return used <= last.fromWidth;
    });
}
static_assert(HaveRoom());

}  // namespace

std::span<const Column> AllColumns() {
    return COLUMNS;
}

std::vector<ShownColumn> LayOutColumns(size_t width) {
    std::vector<ShownColumn> shown;
    size_t spare = width;
    for (const Column& column : COLUMNS) {
        if (width >= column.fromWidth) {
            spare -= column.width.least + (shown.empty() ? 0 : COLUMN_GAP);
            shown.push_back({&column, column.width.least});
        }
    }
    for (const auto limit : {&ColumnWidth::wide, &ColumnWidth::widest}) {
        for (auto column = shown.rbegin(); column != shown.rend(); ++column) {
            const size_t most = std::max(column->column->width.*limit, column->width);
            const size_t more = std::min(most - column->width, spare);
            column->width += more;
            spare -= more;
        }
    }
    // Whatever is left goes to the last column, whose text is the longest.
    if (!shown.empty()) {
        shown.back().width += spare;
    }
    return shown;
}

std::vector<const Column*> OrderColumns() {
    std::vector<const Column*> orders;
    for (size_t i = 0; i < std::size(COLUMNS); ++i) {
        const Column& column = COLUMNS[(USUAL_ORDER + i) % std::size(COLUMNS)];
        if (column.order.compare != nullptr) {
            orders.push_back(&column);
        }
    }
    return orders;
}

std::string ListOrders() {
    const std::vector<const Column*> orders = OrderColumns();
    std::string names;
    for (const Column* const column : orders) {
        names += column == orders.front() ? "" : column == orders.back() ? " or " : ", ";
        names += column->order.name;
    }
    return names;
}

}  // namespace Tesu::Bpf
