// SPDX-License-Identifier: Apache-2.0
#include "util/termination_signals.h"

#include <poll.h>
#include <sys/signalfd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>

namespace Tesu::Bpf {

TerminationSignals::TerminationSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    signalFd.reset(signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
    if (signalFd.get() == -1) {
        std::perror("cannot watch for signals");
        std::exit(EXIT_FAILURE);
    }
}

bool TerminationSignals::wait(std::chrono::milliseconds duration) const {
    pollfd entry{.fd = signalFd.get(), .events = POLLIN, .revents = 0};
    return poll(&entry, 1, static_cast<int>(duration.count())) == 1;
}

void TerminationSignals::wait() const {
    while (!wait(std::chrono::milliseconds(-1))) {
    }
}

}  // namespace Tesu::Bpf
