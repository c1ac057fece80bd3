// SPDX-License-Identifier: Apache-2.0
#include "client/top_layout.h"

#include <algorithm>

namespace Tesu::Bpf {

namespace {

struct Wish {
    ColumnId id;
    size_t width;  // to have the column at all, or to widen it to
};

// Without the first of them no other column is of use.
constexpr size_t ESSENTIAL_COLUMNS = 3;

// The most important first. A later wish for the same column widens it.
constexpr Wish WISHES[] = {
    {ColumnId::PID, 7},      {ColumnId::NAME, 15},    {ColumnId::MEMORY, 10},
    {ColumnId::THREADS, 5},  {ColumnId::CHANGE, 11},  {ColumnId::HINT, 4},
    {ColumnId::AGE, 7},      {ColumnId::FDS, 5},      {ColumnId::HISTORY, 8},
    {ColumnId::HINT, 16},    {ColumnId::HISTORY, 16}, {ColumnId::ANON, 10},
    {ColumnId::HISTORY, 20}, {ColumnId::HINT, 24},    {ColumnId::FILE_PAGES, 10},
    {ColumnId::PARENT, 7},   {ColumnId::SWAP, 10},    {ColumnId::USER, 6},
    {ColumnId::SHMEM, 10},   {ColumnId::HISTORY, 60},
};

}  // namespace

std::vector<Column> LayOutColumns(size_t width) {
    std::vector<Column> columns;
    size_t used = 0;
    for (const Wish& wish : WISHES) {
        const auto found = std::find_if(columns.begin(), columns.end(),
                                        [&](const Column& column) { return column.id == wish.id; });
        if (found != columns.end()) {
            const size_t more = std::min(wish.width - found->width, width - used);
            // Half a widening is of use to the history alone.
            if (more == wish.width - found->width || wish.id == ColumnId::HISTORY) {
                found->width += more;
                used += more;
            }
            continue;
        }
        const size_t needed = wish.width + (columns.empty() ? 0 : COLUMN_GAP);
        if (used + needed <= width) {
            columns.push_back({wish.id, wish.width});
            used += needed;
        } else if (columns.size() < ESSENTIAL_COLUMNS) {
            break;
        }
    }
    std::sort(columns.begin(), columns.end(),
              [](const Column& a, const Column& b) { return a.id < b.id; });
    // Whatever is left goes to the last column, whose text is the longest.
    if (!columns.empty()) {
        columns.back().width += width - used;
    }
    return columns;
}

}  // namespace Tesu::Bpf
