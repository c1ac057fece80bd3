// SPDX-License-Identifier: Apache-2.0
//
// What a host that serves strangers wants of the service. The library does none of it on its own.
#pragma once

#include "util/export.h"

namespace Tesu::Bpf {

// Sets those of the service's properties (records/contract.h) that are not set yet, or are set to
// what is no number, which is logged: limits for clients, a look at the pins every ten seconds, and
// one at the table every minute. Before BpfServiceMain().
TESU_API void SetHostDefaults();

}  // namespace Tesu::Bpf
