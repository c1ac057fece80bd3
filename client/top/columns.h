// SPDX-License-Identifier: Apache-2.0
//
// The columns of the table of processes: all there is to say about one stands in one place. Pure;
// any thread.
#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <vector>

#include "client/top/styled_line.h"
#include "model/process_model.h"

namespace Tesu::Bpf {

// Cells. Room that is left makes a column up to `wide`, then up to `widest` cells wide.
struct ColumnWidth {
    size_t least;
    size_t wide = least;
    size_t widest = wide;
};

// How a column orders the rows.
struct ColumnOrder {
    ProcessOrder compare = nullptr;  // null: not at all
    const char* name = nullptr;
    char key = 0;  // on the keyboard
};

struct Column {
    const char* title;
    Align align;
    size_t fromWidth;  // of the whole table, from which on it has this column
    ColumnWidth width;
    std::string (*text)(const ProcessRow& row, size_t width);
    ColumnOrder order{};
    Style style = Style::PLAIN;
    bool (*isOdd)(const ProcessRow& row) = nullptr;  // then it is shown as a warning
    const char* help = "";                           // lines
};

// Cells between two columns.
inline constexpr size_t COLUMN_GAP = 1;

struct ShownColumn {
    const Column* column;
    size_t width;  // cells
};

// From left to right. Valid for ever.
std::span<const Column> AllColumns();

// The columns of a table this wide, from left to right. With their gaps they are exactly as wide
// from the width on at which there is a column at all.
std::vector<ShownColumn> LayOutColumns(size_t width);

// The columns that order the rows, the usual one first.
std::vector<const Column*> OrderColumns();

// Their names for a sentence: "memory, change, ... or name".
std::string ListOrders();

}  // namespace Tesu::Bpf
