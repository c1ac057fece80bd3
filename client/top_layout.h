// SPDX-License-Identifier: Apache-2.0
//
// Which columns a table of processes has at a given width. Pure; any thread.
#pragma once

#include <cstddef>
#include <vector>

namespace Tesu::Bpf {

enum class ColumnId {
    PID,
    PARENT,
    USER,
    NAME,
    MEMORY,
    CHANGE,
    ANON,
    FILE_PAGES,
    SHMEM,
    SWAP,
    THREADS,
    FDS,
    AGE,
    HISTORY,
    HINT,
};

struct Column {
    ColumnId id;
    size_t width;  // cells
};

// Cells between two columns.
inline constexpr size_t COLUMN_GAP = 1;

// The columns from left to right. With their gaps they are never wider than `width`, and exactly as
// wide from the width on at which pid and name fit; the most important ones come first to their
// place, and what is left over goes to those that can use it.
std::vector<Column> LayOutColumns(size_t width);

}  // namespace Tesu::Bpf
