/* SPDX-License-Identifier: Apache-2.0 OR GPL-2.0-only
 *
 * What the kernel offers to programs.
 */
#ifndef TESUBPF_BPF_HELPERS_H
#define TESUBPF_BPF_HELPERS_H

#include <stdint.h>

/* The second needs the types of the first. */
// clang-format off
#include <linux/bpf.h>
#include <bpf/bpf_helpers.h>
// clang-format on

#ifndef NULL
#define NULL ((void*)0)
#endif

#endif
