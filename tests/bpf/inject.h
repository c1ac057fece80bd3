/* SPDX-License-Identifier: Apache-2.0 OR GPL-2.0-only
 *
 * What is passed to the programs in Inject.bpf.c and back.
 */
#ifndef TESUBPF_TESTS_BPF_INJECT_H
#define TESUBPF_TESTS_BPF_INJECT_H

#ifdef __cplusplus
#include <cstdint>
namespace Tesu::Bpf {
#else
#include <stdint.h>
#endif

/* Of a record, and of the kernel memory that holds it. */
#define INJECT_MAX_BYTES 65536
/* Records of one run of the program; the verifier follows every turn of the loop. */
#define INJECT_BATCH 256

struct InjectRequest {
    uint32_t size;    /* in: bytes of each record, 16 to INJECT_MAX_BYTES */
    uint32_t count;   /* in: copies of the record, their times rising by 1; at most INJECT_BATCH */
    uint32_t refused; /* out: how many found the buffer full */
    uint32_t padding;
    uint64_t address; /* out: of the record in kernel memory */
};

#ifdef __cplusplus
}  // namespace Tesu::Bpf
#endif

#endif
