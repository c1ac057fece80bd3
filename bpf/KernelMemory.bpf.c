// SPDX-License-Identifier: Apache-2.0 OR GPL-2.0-only
//
// Copies kernel memory for the loader, which runs it as a system call's program; never attached.
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

SEC("syscall")
int copy_kernel_memory(struct KernelMemoryRequest* request) {
    const uint64_t ids = bpf_get_current_pid_tgid();
    const uint64_t address = request->address;
    const uint32_t wanted = request->bytes;
    const uint32_t key = 0;
    struct CopiedBytes* copied = bpf_map_lookup_elem(&copied_bytes, &key);
    request->address = bpf_get_current_task();
    request->pid = ids >> 32;
    request->tid = (uint32_t)ids;
    request->bytes = 0;
    for (uint32_t done = 0; copied != NULL && done < wanted && done < KERNEL_MEMORY_BYTES;
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
