// SPDX-License-Identifier: Apache-2.0
//
// Puts together what the programs must know of the running kernel: tracepoint fields from the
// tracing file system, structure members from the kernel's type information or, where it has none,
// by probing, function arguments from the machine.
#pragma once

#include <string>

#include "bpf/kernel_layout.h"
#include "loader/kernel_btf.h"
#include "loader/libbpf_log.h"
#include "loader/load_object.h"
#include "loader/tracepoint_format.h"

namespace Tesu::Bpf {

enum class MemberSource { BTF_OR_PROBE, BTF, PROBE };

struct LayoutSources {
    std::string peekObject;  // path of TASK_PEEK_OBJECT, for probing
    MemberSource members = MemberSource::BTF_OR_PROBE;
    std::string tracefsRoot = TRACEFS_ROOT;
    std::string btfPath = KERNEL_BTF_PATH;
    std::string machine;  // as uname names it; empty: this one's
};

struct KernelLayout {
    TesuKernelLayout values;
    LeftOutPrograms unusable;   // programs that lack something they need
    std::string memberSource;   // for the user: where structure members are from
    std::string memberProblem;  // empty, or why structure members are missing
};

// A layout in which nothing is known and atomics are to be tried.
TesuKernelLayout UnknownLayout();

// Never fails as a whole: what is not found makes the programs that need it unusable. Forks when it
// probes, so this process must have one thread then.
KernelLayout FindKernelLayout(const LayoutSources& sources, LibbpfLog* log);

}  // namespace Tesu::Bpf
