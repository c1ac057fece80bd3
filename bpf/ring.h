/* SPDX-License-Identifier: Apache-2.0 OR GPL-2.0-only
 *
 * The ring buffer and the status map of an object, and the account of what did not fit. The object
 * defines RING_BUFFER_BYTES before it includes this.
 *
 * Programs write into the ring that ringbuf_current holds, which at first is ringbuf_map. The
 * service puts a new one there where the kernel would stop writing into the old
 * (service/ring_replacement.h).
 *
 * A record is reserved, written in place and submitted. Every record that was to be written is
 * either in the buffer or counted as lost. The kernel wakes the reader for a record that it has
 * caught up with, but not while the reader comes by itself (ringbuf_polled).
 */
#ifndef TESUBPF_BPF_RING_H
#define TESUBPF_BPF_RING_H

#include "bpf/counters.h"
#include "bpf/kernel_read.h"
#include "records/bpf_maps.h"

struct RecordRing {
    __uint(type, BPF_MAP_TYPE_RINGBUF);
    __uint(max_entries, RING_BUFFER_BYTES);
} ringbuf_map SEC(".maps");

struct {
    __uint(type, BPF_MAP_TYPE_ARRAY_OF_MAPS);
    __uint(max_entries, 1);
    __type(key, uint32_t);
    __array(values, struct RecordRing);
} ringbuf_current SEC(".maps") = {.values = {&ringbuf_map}};

/* The loader makes room for every possible CPU's RING_LOST_RECORDS slot. */
struct {
    __uint(type, BPF_MAP_TYPE_ARRAY);
    __uint(max_entries, RING_LOST_RECORDS + 1);
    __type(key, uint32_t);
    __type(value, uint64_t);
} ringbuf_status SEC(".maps");

/* Not 0 while the reader will look into the ring without being woken (service/ring_wakeups.h). */
struct {
    __uint(type, BPF_MAP_TYPE_ARRAY);
    __uint(map_flags, BPF_F_MMAPABLE);
    __uint(max_entries, 1);
    __type(key, uint32_t);
    __type(value, uint32_t);
} ringbuf_polled SEC(".maps");

static __always_inline uint64_t* StatusSlot(uint32_t key) {
    return bpf_map_lookup_elem(&ringbuf_status, &key);
}

/* RingStatusFlag bits. */
static __always_inline uint64_t RingFlags(void) {
    const uint64_t* flags = StatusSlot(RING_STATUS_FLAGS);
    return flags != NULL ? *(const volatile uint64_t*)flags : 0;
}

/* Invariant: marking the buffer full never undoes an enable. The service changes the enable bits in
 * the same word, by reading and writing it. An atomic or cannot lose its write. Without atomics the
 * word that is stored may be stale, so it is stored only when both enable bits were already set in
 * it: there was no enable left that it could undo. Until then nothing but the core class writes,
 * the lost records are counted all the same, and the next one that is lost tries again. */
static __always_inline void MarkRingFull(void) {
    uint64_t* flags = StatusSlot(RING_STATUS_FLAGS);
    if (flags == NULL) {
        return;
    }
    const uint64_t seen = *(volatile uint64_t*)flags;
    const uint64_t enabled = FLAG_CORE_ENABLED | FLAG_NORMAL_ENABLED;
    if ((seen & FLAG_RINGBUF_FULL) != 0) {
        return;
    }
    if (kernelLayout.hasAtomics) {
        __sync_fetch_and_or(flags, FLAG_RINGBUF_FULL);
    } else if ((seen & enabled) == enabled) {
        *(volatile uint64_t*)flags = seen | FLAG_RINGBUF_FULL;
    }
}

/* Never NULL, which only the verifier does not know. */
static __always_inline void* CurrentRing(void) {
    const uint32_t key = 0;
    return bpf_map_lookup_elem(&ringbuf_current, &key);
}

static __always_inline void QueryRingInto(uint32_t key, void* ring, uint64_t what) {
    uint64_t* slot = StatusSlot(key);
    if (slot != NULL) {
        *slot = bpf_ringbuf_query(ring, what);
    }
}

/* Counts one record that was made and will never be read. The programs run with preemption off and
 * one at a time on a CPU, so the own CPU's slot needs no atomic addition. */
static __always_inline void CountLostRecord(void) {
    uint64_t* lost = StatusSlot(RING_LOST_RECORDS + bpf_get_smp_processor_id());
    if (lost != NULL) {
        AddTo(lost, 1);
    }
}

/* Reports the buffer's state after a record found it full, and counts that record. */
static __always_inline void ReportFullRing(void* ring) {
    MarkRingFull();
    QueryRingInto(RING_AVAIL_DATA, ring, BPF_RB_AVAIL_DATA);
    QueryRingInto(RING_SIZE, ring, BPF_RB_RING_SIZE);
    QueryRingInto(RING_CONS_POS, ring, BPF_RB_CONS_POS);
    QueryRingInto(RING_PROD_POS, ring, BPF_RB_PROD_POS);
    CountLostRecord();
}

/* A record of constant `size` with its header, of this moment; the memory behind is not cleared.
 * NULL after the loss was accounted for. */
static __always_inline void* ReserveRecord(uint64_t size, uint32_t type) {
    void* ring = CurrentRing();
    if (ring == NULL) {
        return NULL;
    }
    struct RawEventHeader* header = bpf_ringbuf_reserve(ring, size, 0);
    if (header == NULL) {
        ReportFullRing(ring);
        return NULL;
    }
    header->type = type;
    header->padding = 0;
    header->time = bpf_ktime_get_ns();
    return header;
}

/* The word is read when the record has its place in the ring: a reader that takes it back and then
 * finds the ring without that place has taken it back in time for the record to wake it. */
static __always_inline void SubmitRecord(void* record) {
    const uint32_t key = 0;
    const volatile uint32_t* polled = bpf_map_lookup_elem(&ringbuf_polled, &key);
    bpf_ringbuf_submit(record, polled != NULL && *polled != 0 ? BPF_RB_NO_WAKEUP : 0);
}

#endif
