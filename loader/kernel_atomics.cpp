// SPDX-License-Identifier: Apache-2.0
#include "loader/kernel_atomics.h"

#include <android-base/unique_fd.h>
#include <bpf/bpf.h>
#include <linux/bpf.h>

#include <iterator>

namespace Tesu::Bpf {

bool HasAtomics() {
    // uint64_t word = 0; __sync_fetch_and_or(&word, 0); return 0;
    constexpr __s16 WORD = -static_cast<__s16>(sizeof(__u64));  // on the stack
    const bpf_insn instructions[] = {
        {BPF_ALU64 | BPF_MOV | BPF_K, BPF_REG_0, 0, 0, 0},
        {BPF_STX | BPF_MEM | BPF_DW, BPF_REG_10, BPF_REG_0, WORD, 0},
        {BPF_STX | BPF_ATOMIC | BPF_DW, BPF_REG_10, BPF_REG_0, WORD, BPF_OR},
        {BPF_JMP | BPF_EXIT, 0, 0, 0, 0},
    };
    const android::base::unique_fd program(bpf_prog_load(BPF_PROG_TYPE_TRACEPOINT, "atomics", "GPL",
                                                         instructions, std::size(instructions),
                                                         nullptr));
    return program.ok();
}

}  // namespace Tesu::Bpf
