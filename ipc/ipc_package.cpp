// SPDX-License-Identifier: Apache-2.0
#include "ipc/ipc_package.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <new>
#include <string>
#include <utility>

#include "records/read_prefix.h"
#include "util/log.h"

using Tesu::Bpf::MutexLock;

static_assert(sizeof(unsigned) == 4, "words on the wire are 32-bit");

namespace {

template <size_t N>
std::string_view BytesOf(const uint32_t (&words)[N]) {
    return {reinterpret_cast<const char*>(words), sizeof(words)};
}

}  // namespace

bool CheckIpcPackageComplete(const BufferState* buffer, long long* headerLength,
                             long long* packageLength) {
    *headerLength = IPC_FRAME_HEADER_SIZE;
    const long long available = static_cast<long long>(buffer->length) - buffer->cursor;
    if (available < *headerLength) {
        return false;
    }
    *packageLength = Tesu::Bpf::ReadPrefix<int64_t>(buffer->data + buffer->cursor, available);
    // A type word with its top bit set makes the number negative.
    return available >= static_cast<long long>(sizeof(int64_t)) && *packageLength >= 0 &&
           available - *headerLength >= *packageLength;
}

int SaveUnuseBuffer(BufferState* buffer) {
    const int unconsumed = buffer->length - buffer->cursor;
    if (unconsumed > 0 && buffer->cursor > 0) {
        std::memmove(buffer->data, buffer->data + buffer->cursor, static_cast<size_t>(unconsumed));
    }
    buffer->length = unconsumed;
    buffer->cursor = 0;
    return unconsumed;
}

// Queues a package of these two parts; refused when it would not fit the write buffer or memory ran
// out.
bool IpcPackageManager::append(std::string_view head, std::string_view data) {
    const uint64_t size = uint64_t{head.size()} + data.size();
    {
        MutexLock lock(mutex);
        const size_t frameSize = IPC_FRAME_HEADER_SIZE + static_cast<size_t>(size);
        errno = EMSGSIZE;
        char* const frame = size <= maxPackageSize ? writer.reserve(frameSize) : nullptr;
        if (frame != nullptr) {
            const auto length = static_cast<uint32_t>(size);
            std::memcpy(frame, &length, sizeof(length));
            char* const package = frame + sizeof(length);
            std::copy(head.begin(), head.end(), package);
            std::copy(data.begin(), data.end(), package + head.size());
            if (queue(writer.commit(frameSize, 1))) {
                return true;
            }
        }
        ++refused;
    }
    TESU_LOGE(TESU_LOG_UTILS,
              "[IpcPackageManager] package refused: %llu bytes, at most %u fit, message: %s",
              static_cast<unsigned long long>(size), maxPackageSize, strerror(errno));
    return false;
}

bool IpcPackageManager::queue(FrameRange frames) {
    try {
        packages.append(std::move(frames));
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        return false;
    }
    ready.notify_all();
    return true;
}

bool IpcPackageManager::appendFrames(FrameRange frames) {
    MutexLock lock(mutex);
    const size_t count = frames.count;
    const bool isQueued = queue(std::move(frames));
    refused += isQueued ? 0 : count;
    return isQueued;
}

void IpcPackageManager::countRefused(size_t count) {
    MutexLock lock(mutex);
    refused += count;
}

bool IpcPackageManager::appendReqIpcPackage(const TesuReqIpcPackage* request) {
    static_assert(offsetof(TesuReqIpcPackage, length) + sizeof(request->length) ==
                  IPC_REQUEST_HEAD_SIZE);
    const uint32_t header[] = {IPC_PACKAGE_REQUEST, IPC_REQUEST_HEAD_SIZE + request->length};
    std::string head(BytesOf(header));
    head.append(reinterpret_cast<const char*>(request), IPC_REQUEST_HEAD_SIZE);
    return append(head, {request->data, request->length});
}

bool IpcPackageManager::appendRespIpcPackage(const TesuRespIpcPackage* response) {
    const uint32_t head[] = {IPC_PACKAGE_RESPONSE, IPC_RESPONSE_RECORD_SIZE + response->length,
                             response->requestId,  static_cast<uint32_t>(response->result),
                             response->length,     0};
    static_assert(sizeof(head) == IPC_PACKAGE_HEADER_SIZE + IPC_RESPONSE_RECORD_SIZE);
    return append(BytesOf(head), {response->data, response->length});
}

bool IpcPackageManager::buildAndAppendSecondIpcPackage(unsigned type, const char* data,
                                                       unsigned length) {
    const uint32_t header[] = {type, length};
    return type <= IPC_PACKAGE_EVENT && append(BytesOf(header), {data, length});
}

bool IpcPackageManager::buildAndAppendIpcPackage(const char* bytes, unsigned size) {
    return append({bytes, size}, {});
}

bool IpcPackageManager::moveToBuffer(BufferState* writeBuffer, int slack, size_t limit) {
    const int room = std::max(writeBuffer->capacity - writeBuffer->length - slack, 0);
    const size_t before = packages.count();
    const size_t moved =
        packages.take(writeBuffer->data + writeBuffer->length, static_cast<size_t>(room), limit);
    writeBuffer->length += static_cast<int>(moved);
    taken += before - packages.count();
    return moved != 0;
}

bool IpcPackageManager::fillNextIpcPackageToBuffer(BufferState* writeBuffer) {
    MutexLock lock(mutex);
    return moveToBuffer(writeBuffer, 1, 1);
}

void IpcPackageManager::fillNextIpcPackagesToBuffer(BufferState* writeBuffer) {
    MutexLock lock(mutex);
    moveToBuffer(writeBuffer, 1, SIZE_MAX);
}

bool IpcPackageManager::fillIpcPackageToBuffer(BufferState* writeBuffer) {
    MutexLock lock(mutex);
    const bool any = packages.count() != 0;
    moveToBuffer(writeBuffer, 0, SIZE_MAX);
    return any;
}

void IpcPackageManager::waitEventReady(int milliseconds) {
    MutexLock lock(mutex);
    mutex.waitFor(ready, std::chrono::milliseconds(milliseconds),
                  [this]() REQUIRES(mutex) { return packages.count() != 0; });
}

void IpcPackageManager::notifyEventReady() {
    ready.notify_all();
}

unsigned IpcPackageManager::getIpcPackageCount() const {
    MutexLock lock(mutex);
    return static_cast<unsigned>(packages.count());
}

IpcQueueState IpcPackageManager::getState() const {
    MutexLock lock(mutex);
    return {.queuedBytes = packages.bytes(),
            .queuedPackages = packages.count(),
            .takenPackages = taken,
            .refusedPackages = refused};
}
