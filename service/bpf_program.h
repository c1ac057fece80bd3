// SPDX-License-Identifier: Apache-2.0
//
// Attaches eBPF programs that a loader has pinned to their tracepoints and kprobes.
//
// A program is pinned as prog_<object>_<tracepoint|kprobe>_<event>. A tracepoint event is
// <category>_<name>, a kprobe event <enter|return>_<kernel function>.
//
// An attachment lasts as long as the descriptor that made it, so descriptors of attachments and
// their programs are kept open for the life of the process. All functions log their failures and
// may be called from any thread.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "util/export.h"

namespace Tesu::Bpf {

enum BpfAttachType { BPF_ATTACH_TYPE_TRACEPOINT = 0, BPF_ATTACH_TYPE_KPROBE = 1 };

// Object name -> BpfAttachType -> events, in the order in which they are attached.
using BpfProgramTable = std::map<std::string, std::map<int, std::vector<std::string>>>;

// A descriptor of a pinned program, which the caller owns; negative on failure, errno says why.
TESU_API int RetrieveProgramFd(const std::string& dir, const std::string& name);
TESU_API int RetrieveProgramFd(const std::string& dir, const std::string& objName,
                               const std::string& type, const std::string& event);

// The attachment's descriptor, or a negative value (-1: failed).
TESU_API int AttachTracepointProgram(const std::string& dir, const std::string& objName,
                                     const std::string& event);
TESU_API int AttachKProbeProgram(const std::string& dir, const std::string& objName,
                                 const std::string& event);

// Attaches every program of the table; returns how many failed.
TESU_API int AttachAllTesuBpfProgram(const std::string& dir, const BpfProgramTable& table);

struct BpfProgramState {
    std::string object;
    std::string event;
    bool isAttached = false;
};
// What came of each program that these drivers were to attach, in that order.
TESU_API std::vector<BpfProgramState> GetBpfProgramStates();

// For hosts; the service calls none of these.

// Attaches every pinned program in `dir`; returns how many failed, 0 when there is no such folder.
TESU_API int AttachAllTesuBpfProgram(const std::string& dir);
// Whether a file name is that of a pinned program.
TESU_API bool IsBpfProg(std::string& name);
// A program under any name to any tracepoint. Result as above.
TESU_API int AttachTracepointProgram(const std::string& dir, const std::string& progName,
                                     const std::string& subSystem, const std::string& eventName);

}  // namespace Tesu::Bpf
