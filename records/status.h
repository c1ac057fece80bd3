// SPDX-License-Identifier: Apache-2.0
//
// How the service answers the request STATUS_COMMAND: with responses of the request's id, each with
// one of these as its data. A response's result is the number of those that follow it, so 0 is the
// last; -1, and no data, where the service does not answer.
//
// Native byte order, as everything on the socket. Later versions may add members at an end: read as
// much as is there and known. No member is of one moment with another.
#pragma once

#include <cstddef>
#include <cstdint>

namespace Tesu::Bpf {

enum StatusKind : uint32_t {
    STATUS_SERVICE = 0,  // first, once
    STATUS_PROGRAM = 1,  // one for each that was to be attached
    STATUS_RING = 2,     // one for each of the two
    STATUS_CLIENT = 3,   // one for each connection
};

struct ServiceStatus {
    uint32_t kind;
    int32_t pid;
    int64_t startTime;    // monotonic nanoseconds
    char version[16];     // NUL-terminated
    uint64_t queueBytes;  // memory of all clients' queues
    char dumpFolder[96];  // NUL-terminated; of a property, which has fewer letters
};
static_assert(sizeof(ServiceStatus) == 136, "wire layout");

struct ProgramStatus {
    uint32_t kind;
    int32_t isAttached;
    char object[32];  // these two NUL-terminated
    char event[64];   // CATEGORY_NAME of a tracepoint, enter_ or return_FUNCTION of a kprobe
};
static_assert(sizeof(ProgramStatus) == 104, "wire layout");

enum RingMonitorState : int32_t {
    RING_MONITOR_NOT_STARTED = 0,
    RING_MONITOR_RUNNING = 1,
    RING_MONITOR_STOPPED = 2,  // by stop()
    RING_MONITOR_FAILED = 3,   // nobody reads the ring any more
};

struct RingStatus {
    uint32_t kind;
    int32_t ring;     // 0: core set of programs, 1: GPL set
    int32_t monitor;  // RingMonitorState
    uint32_t padding;
    uint64_t size;     // bytes; 0: not opened
    uint64_t taken;    // records read since the service started
    uint64_t lost;     // records since the programs were loaded, as last looked at
    uint64_t fullest;  // most bytes that waited for a reading since the service started
};
static_assert(sizeof(RingStatus) == 48, "wire layout");

// Followed by its subscriptions: `typeCount` event types of 32 bits.
struct ClientStatus {
    uint32_t kind;
    int32_t pid;  // of the process that connected, as is the user id; -1: not known
    uint32_t uid;
    uint32_t typeCount;
    uint64_t queuedBytes;
    uint64_t queuedPackages;
    uint64_t sentPackages;     // handed to its socket or about to be
    uint64_t droppedPackages;  // for which there was no memory
};
static_assert(sizeof(ClientStatus) == 48, "wire layout");

}  // namespace Tesu::Bpf
