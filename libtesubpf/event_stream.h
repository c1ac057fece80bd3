// SPDX-License-Identifier: Apache-2.0
//
// A stream of the client library's, closed by its owner's end: for this project's own programs, not
// installed.
#pragma once

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "libtesubpf/tesubpf.h"
#include "util/result.h"

namespace Tesu::Bpf {

struct EventStreamCloser {
    void operator()(tesubpf_stream* stream) const { tesubpf_close(stream); }
};
using EventStream = std::unique_ptr<tesubpf_stream, EventStreamCloser>;

inline Result<EventStream> OpenEventStream(const std::string& socketName,
                                           const std::vector<uint32_t>& eventTypes) {
    const tesubpf_options options{.size = sizeof(options), .socket_name = socketName.c_str()};
    tesubpf_stream* stream = nullptr;
    const int result = tesubpf_open(&stream, eventTypes.data(), eventTypes.size(), &options);
    if (result != 0) {
        return Failure("cannot listen on @" + socketName + ": " + strerror(-result));
    }
    return EventStream(stream);
}

}  // namespace Tesu::Bpf
