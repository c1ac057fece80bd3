// SPDX-License-Identifier: Apache-2.0
//
// Runs the program of Inject.bpf.c. Needs nothing but libbpf.
#pragma once

#include <bpf/bpf.h>
#include <bpf/libbpf.h>

#include <cstdint>

#include "tests/bpf/inject.h"

namespace Tesu::Bpf {

// Whether it ran; the answer is in the request.
inline bool RunInjection(const bpf_object* object, InjectRequest* request) {
    const int program = bpf_program__fd(bpf_object__find_program_by_name(object, "inject"));
    const int requests = bpf_object__find_map_fd_by_name(object, "inject_request");
    const uint32_t key = 0;
    LIBBPF_OPTS(bpf_test_run_opts, options);
    return bpf_map_update_elem(requests, &key, request, BPF_ANY) == 0 &&
           bpf_prog_test_run_opts(program, &options) == 0 && options.retval == 0 &&
           bpf_map_lookup_elem(requests, &key, request) == 0;
}

}  // namespace Tesu::Bpf
