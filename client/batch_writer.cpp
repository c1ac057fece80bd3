// SPDX-License-Identifier: Apache-2.0
#include "client/batch_writer.h"

#include <limits.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string_view>

namespace Tesu::Bpf {

BatchWriter::Result BatchWriter::flush() {
    Result result = Result::WRITTEN;
    std::string_view left = text;
    while (!left.empty()) {
        result = waitWritable();
        if (result != Result::WRITTEN) {
            break;
        }
        // A pipe that is reported writable takes this much without blocking.
        const ssize_t written = write(fd, left.data(), std::min<size_t>(left.size(), PIPE_BUF));
        if (written >= 0) {
            left.remove_prefix(static_cast<size_t>(written));
        } else if (errno != EINTR && errno != EAGAIN) {
            result = errno == EPIPE ? Result::CLOSED : Result::FAILED;
            break;
        }
    }
    text.clear();
    return result;
}

// A writable descriptor goes first: what can be written is written, stop or not.
BatchWriter::Result BatchWriter::waitWritable() const {
    while (true) {
        pollfd entries[] = {{.fd = fd, .events = POLLOUT, .revents = 0},
                            {.fd = stopFd, .events = POLLIN, .revents = 0}};
        if (poll(entries, 2, -1) == -1) {
            if (errno == EINTR) {
                continue;
            }
            return Result::FAILED;
        }
        if (entries[0].revents != 0) {
            // Writable, or an error that the write will name.
            return Result::WRITTEN;
        }
        if (entries[1].revents != 0) {
            return Result::STOPPED;
        }
    }
}

}  // namespace Tesu::Bpf
