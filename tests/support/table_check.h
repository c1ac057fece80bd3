// SPDX-License-Identifier: Apache-2.0
//
// Compares a dump of the service's task table with what /proc tells, which the client's reader
// reads: the two share no code.
#pragma once

#include <sys/types.h>

#include <map>
#include <string>

namespace Tesu::Bpf {

// What is looked at more closely: a process and the name the table is to have for it.
using KnownProcesses = std::map<pid_t, std::string>;

// The differences, a line each, between /proc and a dump with all columns that is made for it:
// processes that one of the two lacks; another parent, while the one in the table lives; and of the
// known processes another name, other thread counts, and sizes that differ by more than the kernel
// may owe. Differences that pass, of processes that come and go just now, are among them.
std::string CompareTableWithProc(const KnownProcesses& known);

}  // namespace Tesu::Bpf
