// SPDX-License-Identifier: Apache-2.0
//
// Keeps libbpf's log off the terminal and finds in it what the loader tells its user.
//
// libbpf has one log for the process: there is at most one LibbpfLog at a time, and libbpf is used
// on one thread.
#pragma once

#include <bpf/libbpf.h>

#include <string>
#include <string_view>

namespace Tesu::Bpf {

class LibbpfLog {
  public:
    // With `verbose` everything goes to the standard error as well.
    explicit LibbpfLog(bool verbose);
    ~LibbpfLog();
    LibbpfLog(const LibbpfLog&) = delete;
    LibbpfLog& operator=(const LibbpfLog&) = delete;

    // The warnings since the last call, in lines.
    std::string takeWarnings();

  private:
    libbpf_print_fn_t before;
};

struct RefusedProgram {
    std::string name;    // empty: no program was refused, something else failed
    std::string reason;  // one line
};

// What the warnings of a failed bpf_object__load say: which program the kernel refused, and why, or
// what else went wrong.
RefusedProgram FindRefusedProgram(std::string_view warnings);

}  // namespace Tesu::Bpf
