// SPDX-License-Identifier: Apache-2.0
//
// The question whether a service listens.
#pragma once

#include <string>

namespace Tesu::Bpf {

// Whether somebody listens under `name`. A connection is made and closed at once; never blocks, not
// even when the listener does not accept. Logs nothing. Any thread.
bool IsServiceListening(const std::string& name);

}  // namespace Tesu::Bpf
