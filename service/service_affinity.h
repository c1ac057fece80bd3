// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sched.h>

namespace Tesu::Bpf {

// CPUs of the service's threads: 0, 1 and 2, the small cores of a device.
inline cpu_set_t ServiceAffinity() {
    cpu_set_t affinity;
    CPU_ZERO(&affinity);
    CPU_SET(0, &affinity);
    CPU_SET(1, &affinity);
    CPU_SET(2, &affinity);
    return affinity;
}

}  // namespace Tesu::Bpf
