/* SPDX-License-Identifier: Apache-2.0 OR GPL-2.0-only
 *
 * The loader's look into kernel memory, where the kernel has no type information: what is passed to
 * the program in TaskPeek.bpf.c and back.
 */
#ifndef TESUBPF_BPF_TASK_PEEK_H
#define TESUBPF_BPF_TASK_PEEK_H

#ifdef __cplusplus
#include <cstdint>
namespace Tesu::Bpf {
#else
#include <stdint.h>
#endif

/* Bytes are copied in chunks, so that memory that ends early still gives its beginning. */
#define TASK_PEEK_CHUNK 256
#define TASK_PEEK_CHUNKS 64
#define TASK_PEEK_BYTES 16384

struct TaskPeekRequest {
    uint64_t address; /* in: what to read; 0: the calling task's task_struct */
    uint32_t bytes;   /* in: how many, a multiple of TASK_PEEK_CHUNK; out: how many were read */
    int32_t pid;      /* out: process id of the caller as the kernel counts */
    int32_t tid;      /* out: thread id of the caller */
    uint32_t padding;
};

#ifdef __cplusplus
}  // namespace Tesu::Bpf
#endif

#endif
