// SPDX-License-Identifier: Apache-2.0
//
// Dumps on request by signal, safe at any moment.
//
// Signal 50 asks for the counters (DumpState), 51 to 54 for the task table (HandleDumpSignal,
// HandleNonKernelDumpSignal, HandleDumpSignalNormal, HandleNonKernelDumpSignalNormal). In signal
// context a request is only noted; a thread of its own, "BpfServiceDump", calls the function of
// that name. Every signal is answered by a dump that begins after it, in the order of the last
// request of each kind; requests that coincide share one.
//
// The thread lives as long as the process, which waits at its exit for the dump in progress.
#pragma once

namespace Tesu::Bpf {

// Any thread, any number of times: the thread is made once.
void InstallDumpSignalHandlers();

}  // namespace Tesu::Bpf
