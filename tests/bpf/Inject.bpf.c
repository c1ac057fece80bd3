// SPDX-License-Identifier: Apache-2.0 OR GPL-2.0-only
//
// Puts records of a test's choosing into a pinned ring buffer, with the same account of losses as
// the real programs. A program of a raw tracepoint, because those can be run since 5.10.
#define RING_BUFFER_BYTES 4096  // replaced: the test puts the pinned maps in place of these

#include "tests/bpf/inject.h"

#include "bpf/kernel_read.h"
#include "bpf/ring.h"

struct {
    __uint(type, BPF_MAP_TYPE_ARRAY);
    __uint(max_entries, 1);
    __type(key, uint32_t);
    __type(value, uint8_t[INJECT_MAX_BYTES]);
} injected_record SEC(".maps");

struct {
    __uint(type, BPF_MAP_TYPE_ARRAY);
    __uint(max_entries, 1);
    __type(key, uint32_t);
    __type(value, struct InjectRequest);
} inject_request SEC(".maps");

SEC("raw_tracepoint")
int inject(void* ctx) {
    const uint32_t key = 0;
    struct InjectRequest* request = bpf_map_lookup_elem(&inject_request, &key);
    if (request == NULL) {
        return -1;
    }
    struct RawEventHeader* record = bpf_map_lookup_elem(&injected_record, &key);
    const uint32_t size = request->size;
    const uint32_t count = request->count;
    void* ring = CurrentRing();
    if (ring == NULL || record == NULL || size < sizeof(*record) || size > INJECT_MAX_BYTES) {
        return -1;
    }
    request->refused = 0;
    request->address = (uint64_t)record;
    for (uint32_t i = 0; i < INJECT_BATCH && i < count; ++i) {
        // Verifiers of 6.1 forget the bounds of a number that was put on the stack meanwhile.
        uint64_t bounded = size;
        asm volatile("" : "+r"(bounded));
        if (bounded > INJECT_MAX_BYTES) {
            return -1;
        }
        if (bpf_ringbuf_output(ring, record, bounded, 0) != 0) {
            ReportFullRing(ring);
            ++request->refused;
        }
        ++record->time;
    }
    return 0;
}

char LICENSE[] SEC("license") = "GPL";
