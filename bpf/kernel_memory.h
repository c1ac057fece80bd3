/* SPDX-License-Identifier: Apache-2.0 OR GPL-2.0-only
 *
 * What the loader passes to the program in KernelMemory.bpf.c and gets back. It reads kernel memory
 * with it where the kernel has no type information.
 */
#ifndef TESUBPF_BPF_KERNEL_MEMORY_H
#define TESUBPF_BPF_KERNEL_MEMORY_H

#ifdef __cplusplus
#include <cstdint>
namespace Tesu::Bpf {
#else
#include <stdint.h>
#endif

/* Bytes are copied in chunks, so that memory that ends early still gives its beginning. */
#define KERNEL_MEMORY_CHUNK 256u
#define KERNEL_MEMORY_BYTES 16384u

struct KernelMemoryRequest {
    uint64_t address; /* in: what to read; out: the calling task's task_struct */
    uint32_t bytes;   /* in: how many; out: how many were read, in whole chunks */
    int32_t pid;      /* out: process id of the caller, in the kernel's own pid namespace */
    int32_t tid;      /* out: thread id of the caller, likewise */
    uint32_t padding;
};

#ifdef __cplusplus
}  // namespace Tesu::Bpf
#endif

#endif
