/* SPDX-License-Identifier: Apache-2.0 OR GPL-2.0-only
 *
 * What the programs must know of the kernel that runs them. The programs are compiled once for all
 * kernels and machines; the loader finds these facts in the running kernel and puts them into the
 * constant data of each object before it loads it, so that the verifier sees constants and drops
 * the branches that this kernel does not take.
 */
#ifndef TESUBPF_BPF_KERNEL_LAYOUT_H
#define TESUBPF_BPF_KERNEL_LAYOUT_H

#ifdef __cplusplus
#include <cstdint>
namespace Tesu::Bpf {
#else
#include <stdint.h>
#endif

/* Value of an offset that the loader did not find. */
#define TESU_UNKNOWN_OFFSET 0xffffffffu
/* Section of the constant in each object, and the name libbpf gives to its map. */
#define TESU_LAYOUT_SECTION ".rodata.layout"

/* All offsets and sizes are bytes. */
struct TesuKernelLayout {
    uint32_t pointerSize;  /* of the kernel's pointers and longs: 4 or 8 */
    uint32_t hasAtomicAdd; /* 1: this kernel has the atomic addition of 64 bits */
    uint32_t hasAtomicOr;  /* likewise; if 0, no instruction may be one (loader/atomic_or.h) */

    /* Fields of tracepoints, from the start of their record. */
    uint32_t forkChildPid;
    uint32_t exitGroupDead; /* 1 byte; if unknown, signalLive counts */
    uint32_t rssMmId;       /* id of the mm; may be unknown */
    uint32_t rssCurr;
    uint32_t rssMember;
    uint32_t rssSize;
    uint32_t rssSizeBytes; /* 4 or 8 */
    uint32_t cgroupRoot;
    uint32_t cgroupLevel;
    uint32_t cgroupId;
    uint32_t cgroupIdBytes; /* 4 or 8 */
    uint32_t cgroupPid;
    uint32_t cgroupComm; /* a __data_loc word, as is cgroupPath */
    uint32_t cgroupPath;

    /* Members of kernel structures. */
    uint32_t taskFlags;
    uint32_t taskTgid;
    uint32_t taskRealParent;
    uint32_t taskGroupLeader;
    uint32_t taskComm;
    uint32_t taskSignal;
    uint32_t signalLive;
    uint32_t inodeIno;
    uint32_t fileInode;
    uint32_t dmaBufSize;

    /* The first two arguments of a function, in the registers that a kprobe gets. */
    uint32_t argument0;
    uint32_t argument1;
    uint32_t registerSize; /* 4 or 8 */

    /* No fact, but what was asked for: a kind of a process's memory is reported when it has moved
     * by so many bytes. 0: at every change. */
    uint32_t rssStep;
};

#ifdef __cplusplus
}  // namespace Tesu::Bpf
#endif

#endif
