/* SPDX-License-Identifier: Apache-2.0 OR GPL-2.0-only
 *
 * Reads from kernel memory at offsets that the loader supplied. They go through
 * bpf_probe_read_kernel, also those of the fields of a tracepoint's own record: the verifier
 * refuses a direct load from a context pointer that something was added to. What cannot be read
 * reads as 0.
 *
 * Where it matters what a read costs there are LoadInt and LoadLong for the fields of a tracepoint:
 * one load for each place where a field can be, with the place in the instruction. The verifier
 * knows which one it is and removes the others.
 */
#ifndef TESUBPF_BPF_KERNEL_READ_H
#define TESUBPF_BPF_KERNEL_READ_H

#include "bpf/helpers.h"
#include "bpf/kernel_layout.h"

const volatile struct TesuKernelLayout kernelLayout SEC(TESU_LAYOUT_SECTION) = {};

static __always_inline int IsKnown(uint32_t offset) {
    return offset != TESU_UNKNOWN_OFFSET;
}

static __always_inline int32_t ReadInt(const void* base, uint32_t offset) {
    int32_t value = 0;
    bpf_probe_read_kernel(&value, sizeof(value), base + offset);
    return value;
}

static __always_inline uint8_t ReadByte(const void* base, uint32_t offset) {
    uint8_t value = 0;
    bpf_probe_read_kernel(&value, sizeof(value), base + offset);
    return value;
}

/* An unsigned number of `bytes` bytes, 4 or 8. */
static __always_inline uint64_t ReadUnsigned(const void* base, uint32_t offset, uint32_t bytes) {
    if (bytes == sizeof(uint32_t)) {
        return (uint32_t)ReadInt(base, offset);
    }
    uint64_t value = 0;
    bpf_probe_read_kernel(&value, sizeof(value), base + offset);
    return value;
}

static __always_inline const void* ReadPointer(const void* base, uint32_t offset) {
    return (const void*)ReadUnsigned(base, offset, kernelLayout.pointerSize);
}

/* In assembler, because the compiler would join the loads into one from a computed address. */
#define LOAD_IF_AT(place, type)                                                             \
    if (offset == (place)) {                                                                \
        uint64_t value;                                                                     \
        asm volatile("%0 = *(" type "*)(%1 + %2)" : "=r"(value) : "r"(record), "i"(place)); \
        return value;                                                                       \
    }

/* A field of 4 bytes of the tracepoint's record. */
static __always_inline int32_t LoadInt(const void* record, uint32_t offset) {
    LOAD_IF_AT(8, "u32")
    LOAD_IF_AT(12, "u32")
    LOAD_IF_AT(16, "u32")
    LOAD_IF_AT(20, "u32")
    LOAD_IF_AT(24, "u32")
    LOAD_IF_AT(28, "u32")
    return ReadInt(record, offset);
}

/* A field of 4 or 8 bytes of the tracepoint's record. */
static __always_inline int64_t LoadLong(const void* record, uint32_t offset, uint32_t bytes) {
    if (bytes == sizeof(uint32_t)) {
        return LoadInt(record, offset);
    }
    LOAD_IF_AT(8, "u64")
    LOAD_IF_AT(16, "u64")
    LOAD_IF_AT(24, "u64")
    LOAD_IF_AT(32, "u64")
    return ReadUnsigned(record, offset, bytes);
}

#undef LOAD_IF_AT

/* The string of a tracepoint's __data_loc field: its low half is the distance of the string from
 * the start of the record. Cut to `size`, always NUL-terminated; the bytes after it are left. */
static __always_inline void ReadLocatedString(char* out, uint32_t size, const void* record,
                                              uint32_t offset) {
    const uint32_t location = (uint32_t)ReadInt(record, offset);
    bpf_probe_read_kernel_str(out, size, record + (location & 0xffff));
}

#endif
