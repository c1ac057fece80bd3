// SPDX-License-Identifier: Apache-2.0
#include "util/termination_signals.h"

#include <poll.h>
#include <sys/signalfd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>

namespace Tesu::Bpf {

namespace {

bool IsReadable(int fd, int timeoutMs) {
    pollfd entry{.fd = fd, .events = POLLIN, .revents = 0};
    return poll(&entry, 1, timeoutMs) == 1;
}

}  // namespace

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
    return IsReadable(signalFd.get(), static_cast<int>(duration.count()));
}

void TerminationSignals::wait() const {
    while (!IsReadable(signalFd.get(), -1)) {
    }
}

}  // namespace Tesu::Bpf
