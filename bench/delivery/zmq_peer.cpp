// SPDX-License-Identifier: Apache-2.0
//
// The service's work done with ZeroMQ: every record of the ring is published as a message.
#include <zmq.h>

#include "bench/delivery/pinned_ring.h"

namespace {

int Publish(void* socket, void* record, size_t size) {
    return zmq_send(socket, record, size, 0) < 0 ? -1 : 0;
}

}  // namespace

int main() {
    void* const context = zmq_ctx_new();
    void* const publisher = zmq_socket(context, ZMQ_PUB);
    // As the service, it drops nothing for a client that is slow.
    const int unlimited = 0;
    zmq_setsockopt(publisher, ZMQ_SNDHWM, &unlimited, sizeof(unlimited));
    if (zmq_bind(publisher, Tesu::Bpf::ZMQ_PEER_ADDRESS) != 0) {
        std::perror("cannot bind");
        return EXIT_FAILURE;
    }
    ring_buffer* const ring = Tesu::Bpf::OpenCoreRing(Publish, publisher);
    Tesu::Bpf::SayServing();
    while (ring_buffer__poll(ring, -1) >= 0) {
    }
    std::perror("cannot poll or publish");
    return EXIT_FAILURE;
}
