// SPDX-License-Identifier: Apache-2.0
//
// The outgoing queue of one connection, and the service's test of what came in on it. The wire
// format is in ipc/frame.h.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <string_view>

#include "ipc/buffer_state.h"
#include "ipc/frame.h"
#include "ipc/frame_queue.h"
#include "util/export.h"
#include "util/mutex.h"

// The largest package that fits an empty write buffer of that size: its length word goes in front
// and fillNextIpcPackageToBuffer leaves one byte of slack.
inline constexpr unsigned IPC_MAX_PACKAGE_SIZE = IPC_BUFFER_SIZE - IPC_FRAME_HEADER_SIZE - 1;

// A request; its first 40 bytes are the head of a request body. `data` is borrowed.
struct TesuReqIpcPackage {
    unsigned requestId = 0;
    char command[IPC_COMMAND_SIZE] = {};  // NUL-terminated
    unsigned length = 0;                  // bytes at data
    const char* data = nullptr;
};

// A response. When received it is laid over a response body, of which only the first 12 bytes are
// its fields; `data` is then meaningless and the data follows the head.
struct TesuRespIpcPackage {
    unsigned requestId = 0;
    int result = 0;       // 0 accepted, -1 refused
    unsigned length = 0;  // bytes at data
    const char* data = nullptr;
};

// Whether a complete package waits at the read buffer's cursor. headerLength becomes 4. When the
// length word is there packageLength is it and the type word behind it as one 64-bit number (bytes
// past `length` count as 0), so that only a type-0 package is ever complete: this is the service's
// side, and clients send requests alone.
TESU_API bool CheckIpcPackageComplete(const BufferState* buffer, long long* headerLength,
                                      long long* packageLength);

// Moves the unconsumed bytes to the front of the buffer; returns how many they are.
TESU_API int SaveUnuseBuffer(BufferState* buffer);

// What a queue holds, and what has passed through it since it was made.
struct IpcQueueState {
    size_t queuedBytes = 0;  // of frames
    uint64_t queuedPackages = 0;
    uint64_t takenPackages = 0;    // into write buffers
    uint64_t refusedPackages = 0;  // for their size, or because memory for them ran out
};

// The outgoing queue of one connection: producers append finished packages, the socket loop moves
// them into the connection's write buffer. Safe for any number of threads. A package that could
// never fit the write buffer is refused when it is queued, since it would block all behind it.
class TESU_API IpcPackageManager {
  public:
    explicit IpcPackageManager(unsigned maxPackageSize = IPC_MAX_PACKAGE_SIZE)
        : maxPackageSize(maxPackageSize) {}
    IpcPackageManager(const IpcPackageManager&) = delete;
    IpcPackageManager& operator=(const IpcPackageManager&) = delete;

    // Whole frames that other queues may have, too. False without memory for the range.
    bool appendFrames(FrameRange frames);
    // These copy what they are given. False: refused, nothing queued.
    bool appendReqIpcPackage(const TesuReqIpcPackage* request);
    // Types above 3 are refused.
    bool buildAndAppendSecondIpcPackage(unsigned type, const char* data, unsigned length);

    // Counts packages that could not even be built, for want of memory.
    void countRefused(size_t count);
    IpcQueueState getState() const;

    // Moves the front package into the write buffer if that leaves at least one byte free.
    bool fillNextIpcPackageToBuffer(BufferState* writeBuffer);
    // The same again and again, until it would be false.
    void fillNextIpcPackagesToBuffer(BufferState* writeBuffer);

    // What follows is for hosts; service and client do without.

    // The body is the 16-byte response record, whose last word (a pointer in the record) is written
    // as 0, then the data.
    bool appendRespIpcPackage(const TesuRespIpcPackage* response);
    // `bytes` is a whole package: type, body length, body.
    bool buildAndAppendIpcPackage(const char* bytes, unsigned size);
    // Moves packages while they fit; true when the queue was not empty on entry.
    bool fillIpcPackageToBuffer(BufferState* writeBuffer);
    // Returns when the queue is not empty, at the latest after `milliseconds`.
    void waitEventReady(int milliseconds);
    void notifyEventReady();
    unsigned getIpcPackageCount() const;

  private:
    bool append(std::string_view head, std::string_view data);
    bool queue(FrameRange frames) REQUIRES(mutex);
    // Moves packages, at most `limit`, while `slack` bytes of the buffer stay free.
    bool moveToBuffer(BufferState* writeBuffer, int slack, size_t limit) REQUIRES(mutex);

    mutable Tesu::Bpf::Mutex mutex;
    FrameQueue packages GUARDED_BY(mutex);
    FrameWriter writer GUARDED_BY(mutex);  // of packages that are this queue's alone
    std::condition_variable ready;
    const unsigned maxPackageSize;
    uint64_t taken GUARDED_BY(mutex) = 0;
    uint64_t refused GUARDED_BY(mutex) = 0;
};
