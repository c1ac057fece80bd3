// SPDX-License-Identifier: Apache-2.0
//
// Programs for kernels that have no atomic or.
#pragma once

#include <bpf/libbpf.h>
#include <linux/bpf.h>

#include <vector>

namespace Tesu::Bpf {

// Puts an instruction that does nothing in place of each atomic or of an object that is not loaded
// yet: kernels before 5.12 refuse a program that has one even where it never runs, as it does not
// when `hasAtomicOr` of the programs' constants is 0.
inline void RemoveAtomicOrs(const bpf_object* object) {
    bpf_program* program = nullptr;
    bpf_object__for_each_program(program, object) {
        const bpf_insn* const first = bpf_program__insns(program);
        std::vector<bpf_insn> instructions(first, first + bpf_program__insn_cnt(program));
        for (bpf_insn& each : instructions) {
            if (each.code == (BPF_STX | BPF_ATOMIC | BPF_DW) && each.imm == BPF_OR) {
                each = {BPF_JMP | BPF_JA, 0, 0, 0, 0};
            }
        }
        bpf_program__set_insns(program, instructions.data(), instructions.size());
    }
}

}  // namespace Tesu::Bpf
