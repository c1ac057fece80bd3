// SPDX-License-Identifier: Apache-2.0
//
// How both peers read the service's core ring buffer: with libbpf and nothing else.
#pragma once

#include <bpf/bpf.h>
#include <bpf/libbpf.h>

#include <cstdio>
#include <cstdlib>

#include "bench/delivery/wire.h"
#include "records/contract.h"

namespace Tesu::Bpf {

// Ends the program where there is none.
inline ring_buffer* OpenCoreRing(ring_buffer_sample_fn onRecord, void* context) {
    const int mapFd = bpf_obj_get(TESU_PIN_DIR "/" TESU_CORE_MAP("ringbuf_map"));
    ring_buffer* const ring = ring_buffer__new(mapFd, onRecord, context, nullptr);
    if (ring == nullptr) {
        std::perror("cannot open the ring buffer");
        std::exit(EXIT_FAILURE);
    }
    return ring;
}

inline void SayServing() {
    std::puts(SERVING);
    std::fflush(stdout);
}

}  // namespace Tesu::Bpf
