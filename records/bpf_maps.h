/* SPDX-License-Identifier: Apache-2.0 OR GPL-2.0-only
 *
 * What lies in the maps that the eBPF programs share with the service, beside the ring buffers.
 */
#ifndef TESUBPF_RECORDS_BPF_MAPS_H
#define TESUBPF_RECORDS_BPF_MAPS_H

#include "records/raw_event.h"

/* Keys of a ring buffer's status map: unsigned 32-bit key, unsigned 64-bit value. */
enum RingStatusKey {
    RING_STATUS_FLAGS = 0,
    RING_AVAIL_DATA = 1, /* bytes not yet consumed, at the last failed reserve */
    RING_SIZE = 2,       /* bytes */
    RING_CONS_POS = 3,
    RING_PROD_POS = 4,
    /* From here one key for each possible CPU, in CPU order: records of that CPU that found the
     * buffer full and were lost. Their sum is the number of lost records: produced = received +
     * lost. A slot each because the 32-bit ARM JIT has no atomic add. */
    RING_LOST_RECORDS = 5
};

/* Bits of RING_STATUS_FLAGS. */
enum RingStatusFlag {
    FLAG_RINGBUF_FULL = 1,  /* set by the programs, cleared by the service */
    FLAG_CORE_ENABLED = 2,  /* set by the service: the core class of programs may write */
    FLAG_NORMAL_ENABLED = 4 /* set by the service: the normal class may write */
};

/* Value of the open-fd map (key: process id, unsigned 32-bit). */
struct OpenFdCaller {
    uint32_t pid;
    uint32_t reserved;
    uint64_t openFds;     /* descriptors open now */
    uint64_t reportedFds; /* openFds in the last RawFdUpdateEvent */
    uint64_t reserved2;
    char comm[TESU_COMM_LEN]; /* NUL-terminated */
};
TESU_CHECK_LAYOUT(sizeof(struct OpenFdCaller) == 48);
TESU_CHECK_LAYOUT(offsetof(struct OpenFdCaller, comm) == 32);

/* Value of the dma-buf allocation map (key: inode number of the dma-buf, unsigned 64-bit). */
struct DmabufAllocation {
    int32_t pid;
    int32_t reserved;
    int64_t size; /* bytes */
};
TESU_CHECK_LAYOUT(sizeof(struct DmabufAllocation) == 16);

#endif
