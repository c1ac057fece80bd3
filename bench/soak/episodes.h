// SPDX-License-Identifier: Apache-2.0
//
// What goes wrong around the daemon for some seconds. Each leaves everything as it was; the load
// and the clients that keep up go on meanwhile.
#pragma once

#include "bench/soak/daemon.h"

namespace Tesu::Bpf {

inline constexpr int EPISODE_COUNT = 4;
extern void (*const EPISODES[EPISODE_COUNT])(Daemon& daemon);

// A daemon of its own, without limits on clients, which runs out of memory under them.
void ExhaustMemory();

// A daemon of its own, with limits on clients, under a memory controller's limit.
void LimitMemory();

}  // namespace Tesu::Bpf
