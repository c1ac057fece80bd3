// SPDX-License-Identifier: Apache-2.0
//
// The service's clock: the kernel's boot time, read once, plus the monotonic clock. It does not
// count time spent suspended and so falls behind the wall clock after a suspend. Any thread.
#pragma once

#include "util/export.h"

namespace Tesu::Bpf {

// Reads the boot time from /proc/stat; false when that cannot be opened.
TESU_API bool InitBasetime();
// Boot time in seconds since the epoch; 0 until InitBasetime() has found it.
TESU_API long long GetBasetime();

// Monotonic nanoseconds in 32 bits, sign-extended: wraps every 2^32 ns (about 4.29 s).
TESU_API unsigned long long GetSystemBootNanosencondsTime();

// Since the epoch, in the unit of their name. Milliseconds: `precise` takes the fine clock, else
// the coarse one, cheaper and a few milliseconds behind. Seconds are coarse.
TESU_API unsigned long long GetSystemNanosencondsTime();
TESU_API unsigned long long GetSystemMicrosencondsTime();
TESU_API unsigned long long GetSystemMillisecondsTime(bool precise);
TESU_API unsigned long long GetSystemSecondsTime();

// |a - b|. Where that exceeds the type, its largest value.
TESU_API long long SubAbs(long long a, long long b);

}  // namespace Tesu::Bpf
