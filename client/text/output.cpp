// SPDX-License-Identifier: Apache-2.0
#include "client/text/output.h"

#include <limits.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace Tesu::Bpf {

WriteResult WriteUntilStopped(int fd, std::string_view text, int stopFd) {
    while (!text.empty()) {
        pollfd entries[] = {{.fd = fd, .events = POLLOUT, .revents = 0},
                            {.fd = stopFd, .events = POLLIN, .revents = 0}};
        if (TEMP_FAILURE_RETRY(poll(entries, 2, -1)) == -1) {
            return WriteResult::FAILED;
        }
        // A writable descriptor goes first: what can be written is written, stop or not. An error
        // is one that the write will name.
        if (entries[0].revents == 0) {
            return WriteResult::STOPPED;
        }
        // A pipe that is reported writable takes this much without blocking.
        const ssize_t written = write(fd, text.data(), std::min<size_t>(text.size(), PIPE_BUF));
        if (written >= 0) {
            text.remove_prefix(static_cast<size_t>(written));
        } else if (errno != EINTR && errno != EAGAIN) {
            return errno == EPIPE ? WriteResult::CLOSED : WriteResult::FAILED;
        }
    }
    return WriteResult::WRITTEN;
}

}  // namespace Tesu::Bpf
