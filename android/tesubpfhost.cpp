// SPDX-License-Identifier: Apache-2.0
//
// The host daemon of a device, started by init. Properties, folders, pins and the privileges come
// from the platform (docs/android.md). Nothing is to be put in order at the end, so SIGTERM just
// ends it. When the service asks for it, the host ends by itself and init starts it again.
#include <poll.h>

#include <cstdio>
#include <thread>

#include "service/host_defaults.h"
#include "service/tesu_bpf_service.h"

int main() {
    Tesu::Bpf::SetHostDefaults();
    if (!Tesu::Bpf::BpfServiceMain()) {
        return 0;  // disabled by its property
    }
    auto* const service = Tesu::Bpf::TesuBpfService::GetInstance();
    std::thread supervisor([service] { service->Wait(); });
    pollfd restart = {.fd = service->restartFd(), .events = POLLIN, .revents = 0};
    while (poll(&restart, 1, -1) <= 0) {  // a dump's signal
    }
    std::fprintf(stderr, "tesubpfhost: %s: ending, to be started again\n",
                 service->restartReason().c_str());
    service->stop();
    supervisor.join();
    return Tesu::Bpf::EXIT_TO_BE_RESTARTED;
}
