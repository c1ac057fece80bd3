// SPDX-License-Identifier: Apache-2.0
//
// Puts the task table right where records about it were lost.
//
//   CompareTableWithProc()       any thread: reads /proc, changes nothing
//   -> all records that were in the core ring when that returned have been handled
//   TableMending::applySome()... the thread that handles them, between two readings
//
// Why it is right, and no record that is under way undoes it or is made untrue by it:
//
//  - Gone. The table's records are listed before /proc is. A process that was in the table and then
//    was not in /proc had ended, so its exit record was in the ring, or lost, before the comparison
//    returned. Once the ring has been read up to there, the record of an exit that was not lost has
//    removed it. Whatever is in the table under that id by then is only removed if it is the record
//    that was listed (by createEventTime, which no later process of the id has).
//  - Unknown. A process writes its create record at its first step; until then the programs keep
//    it as pending, and such processes are left out, as are those that are younger than `minAge`,
//    of which the fork may not be through. The create record of any other was in the ring, or lost,
//    before /proc was read. Once the ring has been read up to there, it is in the table unless that
//    record was lost. It is added only if it is found in /proc then and not about to end: so its
//    exit record is still to come, and will remove it.
//  - Others. A process whose id came back is told by its start, in seconds since the epoch. A
//    process that was forked while the service ran has that of a clock that stands still while the
//    machine sleeps, so that after a sleep more are taken for others than are. That is harmless: a
//    record is replaced by what /proc says now, which is true of either.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "proc/proc_files.h"
#include "records/raw_event.h"
#include "task/tesu_bpf_task_manager.h"

namespace Tesu::Bpf {

struct TableDifferences {
    // A process that lives, and that the table does not have.
    struct Unknown {
        int32_t pid;
        int64_t startTime;                    // seconds since the epoch
        std::optional<TaskIdentity> inPlace;  // what the table has under its id
    };

    std::vector<TaskIdentity> gone;  // of the table; have ended
    std::vector<Unknown> unknown;

    bool isEmpty() const { return gone.empty() && unknown.empty(); }
};

struct ComparisonOptions {
    std::string procRoot;
    int64_t minAge = 0;  // seconds; of processes that may be unknown
    // Whether processes that both know are compared too, for which all of /proc is read. Needed
    // when something was lost: otherwise the ids alone tell what there is to tell.
    bool withStarts = false;
    std::function<bool(int32_t pid)> isCreatePending;
};

// No differences when `keepScanning` ended it or /proc cannot be read.
TableDifferences CompareTableWithProc(TesuTaskManager* table, const ComparisonOptions& options,
                                      const KeepScanning& keepScanning);

class TableMending {
  public:
    // Takes a task-init record that is to be handled as those of the scan at start.
    using Take = std::function<void(RawTesuTaskInitEvent&)>;

    TableMending() = default;
    explicit TableMending(TableDifferences differences) : left(std::move(differences)) {}

    // Puts some right, for a few milliseconds at most; false when that was the last.
    bool applySome(TesuTaskManager* table, const std::string& procRoot, const Take& take);

    // So far.
    size_t removed() const { return removedCount; }
    size_t added() const { return addedCount; }

  private:
    TableDifferences left;
    size_t removedCount = 0;
    size_t addedCount = 0;
};

}  // namespace Tesu::Bpf
