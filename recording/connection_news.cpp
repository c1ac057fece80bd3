// SPDX-License-Identifier: Apache-2.0
#include "recording/connection_news.h"

namespace Tesu::Bpf {

std::string DescribeNews(const tesubpf_event& event, const std::string& socketName) {
    const std::string reason = event.reason;
    switch (event.kind) {
        case TESUBPF_CONNECTED:
            return "connected to @" + socketName;
        case TESUBPF_WAITING:
            return "no daemon is listening on @" + socketName + "; trying again every 5 seconds";
        case TESUBPF_REFUSED:
            return "the daemon refused the subscription to event type " +
                   std::to_string(static_cast<int32_t>(event.type));
        case TESUBPF_MALFORMED:
            return "the other side does not speak the protocol: " + reason;
        case TESUBPF_LOST:
            return "the connection was lost" + (reason.empty() ? "" : ": " + reason);
        default:
            return "";
    }
}

}  // namespace Tesu::Bpf
