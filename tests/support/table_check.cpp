// SPDX-License-Identifier: Apache-2.0
#include "tests/support/table_check.h"

#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <vector>

#include "proc/process_snapshot.h"
#include "task/tesu_bpf_task_manager.h"

namespace Tesu::Bpf {

namespace {

struct TableRow {
    std::string name;
    int ppid = 0;
    int threads = 0;
    int64_t sizes[MEMORY_KINDS] = {};  // bytes
};

// Of a dump with all columns. The name fills its column and may hold anything but line ends here.
std::map<pid_t, TableRow> ReadTable(const std::string& path) {
    constexpr size_t NAME_WIDTH = 16;
    std::map<pid_t, TableRow> table;
    std::ifstream file(path);
    std::string line;
    std::getline(file, line);
    std::getline(file, line);
    while (std::getline(file, line)) {
        TableRow row;
        row.name = line.substr(0, NAME_WIDTH);
        row.name.erase(row.name.find_last_not_of(' ') + 1);
        std::istringstream fields(line.substr(NAME_WIDTH));
        pid_t pid = 0;
        int oldThreads = 0;
        unsigned mmId = 0;
        fields >> pid >> row.ppid >> row.threads >> oldThreads >> mmId;
        for (const MemoryKind kind : {MEMORY_ANON, MEMORY_FILE, MEMORY_SHMEM, MEMORY_SWAP}) {
            int64_t kilobytes = 0;
            int64_t oldKilobytes = 0;
            std::string unit;
            fields >> kilobytes >> unit >> oldKilobytes >> unit;
            row.sizes[kind] = kilobytes * 1024;
        }
        if (fields) {
            table[pid] = row;
        }
    }
    return table;
}

// The kernel adds up what each CPU counted in batches of at most 64 pages.
int64_t OwedByTheKernel() {
    return 64 * sysconf(_SC_PAGESIZE) * sysconf(_SC_NPROCESSORS_ONLN);
}

}  // namespace

std::string CompareTableWithProc(const KnownProcesses& known) {
    TesuTaskManager::GetInstance()->DumpTesuTaskInfo();
    const std::map<pid_t, TableRow> table = ReadTable(TesuTaskManager::TESUTASK_DUMP_TEMPLATE);
    std::vector<ProcessSnapshot> processes;
    ProcReader().readAll(&processes);
    std::map<pid_t, ProcessSnapshot> present;
    for (const ProcessSnapshot& process : processes) {
        if (!process.isEnding) {
            present[process.pid] = process;
        }
    }

    std::ostringstream differences;
    for (const auto& [pid, row] : table) {
        if (present.count(pid) == 0) {
            differences << pid << " (" << row.name << ") does not live\n";
        }
    }
    for (const auto& [pid, process] : present) {
        const auto found = table.find(pid);
        if (found == table.end()) {
            differences << pid << " (" << process.name << ") is missing\n";
            continue;
        }
        const TableRow& row = found->second;
        if (row.ppid != process.ppid && present.count(row.ppid) != 0) {
            differences << pid << ": parent " << row.ppid << ", not " << process.ppid << "\n";
        }
        const auto expected = known.find(pid);
        if (expected == known.end()) {
            continue;
        }
        if (row.name != expected->second) {
            differences << pid << ": name " << row.name << ", not " << expected->second << "\n";
        }
        if (row.threads != process.threads) {
            differences << pid << ": threads " << row.threads << ", not " << process.threads
                        << "\n";
        }
        for (int kind = 0; kind < MEMORY_KINDS; ++kind) {
            if (std::llabs(row.sizes[kind] - process.memory[kind]) > OwedByTheKernel()) {
                differences << pid << ": size " << kind << " is " << row.sizes[kind] << ", not "
                            << process.memory[kind] << "\n";
            }
        }
    }
    for (const auto& [pid, name] : known) {
        if (present.count(pid) == 0) {
            differences << pid << " (" << name << ") should live\n";
        }
    }
    return differences.str();
}

}  // namespace Tesu::Bpf
