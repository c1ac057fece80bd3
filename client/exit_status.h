// SPDX-License-Identifier: Apache-2.0
//
// What every subcommand returns to the shell.
#pragma once

#include <cstdio>
#include <string>

namespace Tesu::Bpf {

enum ExitStatus {
    EXIT_OK = 0,          // ended as asked: by time, count, signal, or because the reader has gone
    EXIT_NOT_SERVED = 1,  // no daemon, or it gave nothing of what was asked for
    EXIT_USAGE = 2,
    EXIT_FAILED = 3,  // no terminal, no /proc, or the output could not be written
};

// Says on standard error why a subcommand ends; `status`, for the caller to return.
inline int Fail(ExitStatus status, const std::string& reason) {
    std::fprintf(stderr, "tesubpf: %s\n", reason.c_str());
    return status;
}

}  // namespace Tesu::Bpf
