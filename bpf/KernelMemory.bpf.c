// SPDX-License-Identifier: Apache-2.0 OR GPL-2.0-only
//
// Copies kernel memory for the loader, which runs it itself; never attached. A program of a raw
// tracepoint, because those can be run since 5.10; one of a system call, since 5.14.
#include "bpf/helpers.h"
#include "bpf/kernel_memory.h"

struct CopiedBytes {
    uint8_t chunks[KERNEL_MEMORY_BYTES / KERNEL_MEMORY_CHUNK][KERNEL_MEMORY_CHUNK];
};

struct {
    __uint(type, BPF_MAP_TYPE_ARRAY);
    __uint(max_entries, 1);
    __type(key, uint32_t);
    __type(value, struct CopiedBytes);
} copied_bytes SEC(".maps");

struct {
    __uint(type, BPF_MAP_TYPE_ARRAY);
    __uint(max_entries, 1);
    __type(key, uint32_t);
    __type(value, struct KernelMemoryRequest);
} memory_request SEC(".maps");

SEC("raw_tracepoint")
int copy_kernel_memory(void* ctx) {
    const uint32_t key = 0;
    struct KernelMemoryRequest* request = bpf_map_lookup_elem(&memory_request, &key);
    struct CopiedBytes* copied = bpf_map_lookup_elem(&copied_bytes, &key);
    if (request == NULL || copied == NULL) {
        return -1;
    }
    const uint64_t ids = bpf_get_current_pid_tgid();
    const uint64_t address = request->address;
    const uint32_t wanted = request->bytes;
    request->address = bpf_get_current_task();
    request->pid = ids >> 32;
    request->tid = (uint32_t)ids;
    request->bytes = 0;
    for (uint32_t done = 0; done < wanted && done < KERNEL_MEMORY_BYTES;
         done += KERNEL_MEMORY_CHUNK) {
        if (bpf_probe_read_kernel(copied->chunks[done / KERNEL_MEMORY_CHUNK], KERNEL_MEMORY_CHUNK,
                                  (const void*)(address + done)) != 0) {
            break;
        }
        request->bytes = done + KERNEL_MEMORY_CHUNK;
    }
    return 0;
}

char LICENSE[] SEC("license") = "GPL";
