// SPDX-License-Identifier: Apache-2.0
//
// Keeps libbpf's log off the terminal.
#pragma once

#include <bpf/libbpf.h>

#include <string>

namespace Tesu::Bpf {

// libbpf has one log for the process: there is at most one LibbpfLog at a time, and while there is,
// libbpf is used on one thread.
class LibbpfLog {
  public:
    // With `verbose` the log goes to the standard error.
    explicit LibbpfLog(bool verbose);
    ~LibbpfLog();
    LibbpfLog(const LibbpfLog&) = delete;
    LibbpfLog& operator=(const LibbpfLog&) = delete;

    // The first warning since the last call, one line; empty where there was none.
    static std::string TakeFirstWarning();

  private:
    libbpf_print_fn_t before;
};

}  // namespace Tesu::Bpf
