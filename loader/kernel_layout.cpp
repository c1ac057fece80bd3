// SPDX-License-Identifier: Apache-2.0
#include "loader/kernel_layout.h"

#include <android-base/unique_fd.h>
#include <bpf/bpf.h>
#include <linux/bpf.h>
#include <sys/utsname.h>

#include <algorithm>
#include <iterator>
#include <vector>

#include "loader/offset_guessing.h"

namespace Tesu::Bpf {

namespace {

using LayoutOffset = uint32_t TesuKernelLayout::*;

struct NeededField {
    const char* name;
    LayoutOffset offset;
    std::vector<uint32_t> sizes;     // those that the program can read
    LayoutOffset sizeOut = nullptr;  // where its size goes
    bool isLocated = false;
};

struct TracepointProgram {
    const char* program;
    const char* tracepoint;
    std::vector<NeededField> fields;
};

// Sets what the field's place is; false when the program could not read it.
bool TakeField(const TracepointFormat& format, const NeededField& needed,
               TesuKernelLayout* layout) {
    const TracepointField* const field = FindField(format, needed.name);
    if (field == nullptr || field->isLocated != needed.isLocated ||
        std::find(needed.sizes.begin(), needed.sizes.end(), field->size) == needed.sizes.end()) {
        return false;
    }
    layout->*needed.offset = field->offset;
    if (needed.sizeOut != nullptr) {
        layout->*needed.sizeOut = field->size;
    }
    return true;
}

// The loader may be 32-bit on a 64-bit kernel: a `long` field has the kernel's size.
uint32_t FindPointerSize(const std::string& tracefsRoot, const std::string& machine) {
    if (const auto format = ReadTracepointFormat(tracefsRoot, "sched/sched_switch")) {
        const TracepointField* const state = FindField(*format, "prev_state");
        if (state != nullptr && state->type == "long") {
            return state->size;
        }
    }
    return machine.find("64") != std::string::npos ? sizeof(uint64_t) : sizeof(uint32_t);
}

void FindTracepointFields(const std::string& tracefsRoot, KernelLayout* result) {
    using Layout = TesuKernelLayout;
    static const std::vector<TracepointProgram> PROGRAMS = {
        {"tracepoint_sched_sched_switch", "sched/sched_switch", {}},
        {"tracepoint_sched_sched_process_fork",
         "sched/sched_process_fork",
         {{"child_pid", &Layout::forkChildPid, {4}}}},
        {"tracepoint_sched_sched_process_exit", "sched/sched_process_exit", {}},
        {"tracepoint_kmem_rss_stat",
         "kmem/rss_stat",
         {{"curr", &Layout::rssCurr, {4}},
          {"member", &Layout::rssMember, {4}},
          {"size", &Layout::rssSize, {4, 8}, &Layout::rssSizeBytes}}},
        {"tracepoint_cgroup_cgroup_attach_task",
         "cgroup/cgroup_attach_task",
         {{"dst_root", &Layout::cgroupRoot, {4}},
          {"dst_level", &Layout::cgroupLevel, {4}},
          {"dst_id", &Layout::cgroupId, {4, 8}, &Layout::cgroupIdBytes},
          {"pid", &Layout::cgroupPid, {4}},
          {"comm", &Layout::cgroupComm, {4}, nullptr, true},
          {"dst_path", &Layout::cgroupPath, {4}, nullptr, true}}},
    };
    for (const TracepointProgram& needs : PROGRAMS) {
        const auto format = ReadTracepointFormat(tracefsRoot, needs.tracepoint);
        if (!format) {
            result->unusable[needs.program] = format.error();
            continue;
        }
        for (const NeededField& field : needs.fields) {
            if (!TakeField(*format, field, &result->values)) {
                result->unusable[needs.program] = std::string("tracepoint ") + needs.tracepoint +
                                                  " has no usable field " + field.name;
            }
        }
        // What the programs can do without.
        TakeField(*format, {"group_dead", &TesuKernelLayout::exitGroupDead, {1}}, &result->values);
        TakeField(*format, {"mm_id", &TesuKernelLayout::rssMmId, {4}}, &result->values);
    }
}

// Where a kprobe finds the first two arguments in pt_regs. A 64-bit ARM kernel may call itself
// armv8l to a 32-bit process.
void SetArguments(const std::string& machine, TesuKernelLayout* layout) {
    const bool is64Bit = layout->pointerSize == sizeof(uint64_t);
    if (machine == "x86_64" || (machine.starts_with("i") && is64Bit)) {
        layout->argument0 = 112;  // di
        layout->argument1 = 104;  // si
    } else if (machine.starts_with("arm") || machine.starts_with("aarch64")) {
        layout->argument0 = 0;
        layout->argument1 = layout->pointerSize;
    } else {
        return;
    }
    layout->registerSize = layout->pointerSize;
}

void FindMembers(const std::string& btfPath, KernelLayout* result) {
    const auto typed = FindOffsetsInBtf(btfPath, &result->values);
    if (typed) {
        result->memberSource = "the kernel's type information";
        return;
    }
    const auto guessed = GuessOffsets(&result->values);
    if (guessed) {
        result->memberSource = "offset guessing (" + typed.error() + ")";
    } else {
        result->memberProblem = typed.error() + "; offset guessing: " + guessed.error();
    }
}

// Programs that need members or arguments which were not found.
void JudgePrograms(KernelLayout* result) {
    const TesuKernelLayout& layout = result->values;
    const auto require = [&](const char* program, const char* what,
                             std::initializer_list<uint32_t> offsets) {
        if (std::count(offsets.begin(), offsets.end(), TESU_UNKNOWN_OFFSET) > 0) {
            result->unusable.emplace(program, std::string("unknown in this kernel: ") + what);
        }
    };
    if (layout.exitGroupDead == TESU_UNKNOWN_OFFSET) {
        require("tracepoint_sched_sched_process_exit", "whether a thread is the last",
                {layout.taskSignal, layout.signalLive});
    }
    require("kprobe_enter_dma_buf_file_release", "inode numbers or arguments",
            {layout.inodeIno, layout.argument0});
    require("kprobe_enter_dma_buf_stats_setup", "inode numbers, sizes of buffers or arguments",
            {layout.inodeIno, layout.fileInode, layout.dmaBufSize, layout.argument1});
}

}  // namespace

TesuKernelLayout UnknownLayout() {
    TesuKernelLayout layout;
    std::fill_n(reinterpret_cast<uint32_t*>(&layout), sizeof(layout) / sizeof(uint32_t),
                TESU_UNKNOWN_OFFSET);
    layout.pointerSize = sizeof(uint64_t);
    layout.hasAtomicAdd = 0;
    layout.hasAtomicOr = 0;
    layout.rssSizeBytes = sizeof(uint64_t);
    layout.cgroupIdBytes = sizeof(uint64_t);
    layout.registerSize = sizeof(uint64_t);
    layout.rssStep = 0;
    return layout;
}

bool HasAtomic(int32_t operation) {
    // uint64_t word = 0; __sync_fetch_and_add(&word, 0); return 0;
    constexpr __s16 WORD = -static_cast<__s16>(sizeof(__u64));  // on the stack
    const bpf_insn instructions[] = {
        {BPF_ALU64 | BPF_MOV | BPF_K, BPF_REG_0, 0, 0, 0},
        {BPF_STX | BPF_MEM | BPF_DW, BPF_REG_10, BPF_REG_0, WORD, 0},
        {BPF_STX | BPF_ATOMIC | BPF_DW, BPF_REG_10, BPF_REG_0, WORD, operation},
        {BPF_JMP | BPF_EXIT, 0, 0, 0, 0},
    };
    const android::base::unique_fd program(bpf_prog_load(BPF_PROG_TYPE_TRACEPOINT, "atomics", "GPL",
                                                         instructions, std::size(instructions),
                                                         nullptr));
    return program.ok();
}

KernelLayout FindKernelLayout(const std::string& tracefsRoot, const std::string& btfPath) {
    KernelLayout result;
    utsname names = {};
    uname(&names);
    result.values.pointerSize = FindPointerSize(tracefsRoot, names.machine);
    result.values.hasAtomicAdd = HasAtomic(BPF_ADD) ? 1 : 0;
    result.values.hasAtomicOr = HasAtomic(BPF_OR) ? 1 : 0;
    FindTracepointFields(tracefsRoot, &result);
    FindMembers(btfPath, &result);
    SetArguments(names.machine, &result.values);
    JudgePrograms(&result);
    return result;
}

}  // namespace Tesu::Bpf
