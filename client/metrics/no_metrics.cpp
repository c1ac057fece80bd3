// SPDX-License-Identifier: Apache-2.0
//
// In place of metrics.cpp where there is no prometheus-cpp.
#include "client/exit_status.h"
#include "client/metrics/metrics.h"

namespace Tesu::Bpf {

int RunMetrics(const MetricsOptions& /*options*/, const TerminationSignals& /*signals*/) {
    return Fail(EXIT_FAILED, "this build has no metrics: prometheus-cpp was not there");
}

}  // namespace Tesu::Bpf
