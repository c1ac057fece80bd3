// SPDX-License-Identifier: Apache-2.0
//
// A printer for one record, for debugging; for hosts: the service itself does not call it. Logs at
// DEBUG level.
#pragma once

#include "util/export.h"

namespace Tesu::Bpf {

// `size` bytes at `data`; what a short record lacks is printed as 0.
TESU_API void TestHandleEvent(char* data, long long size);

}  // namespace Tesu::Bpf
