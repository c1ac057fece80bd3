// SPDX-License-Identifier: Apache-2.0
#include "ipc/ipc_package.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>

#include "records/read_prefix.h"
#include "util/log.h"

using Tesu::Bpf::MutexLock;

static_assert(sizeof(unsigned) == 4, "words on the wire are 32-bit");

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

bool IpcPackageManager::refuse(uint64_t size) {
    {
        MutexLock lock(mutex);
        ++refused;
    }
    TESU_LOGE(TESU_LOG_UTILS,
              "[IpcPackageManager] package refused: %llu bytes, at most %u fit, message: %s",
              static_cast<unsigned long long>(size), maxPackageSize, strerror(errno));
    return false;
}

// A block for a package with this body, its header filled in; null when it would not fit the write
// buffer or memory ran out.
IpcBlock IpcPackageManager::newPackage(unsigned type, uint64_t bodyLength) {
    const uint64_t size = bodyLength + IPC_PACKAGE_HEADER_SIZE;
    IpcBlock block;
    if (size <= maxPackageSize) {
        block.reset(static_cast<char*>(std::malloc(static_cast<size_t>(size))));
    } else {
        errno = EMSGSIZE;
    }
    if (block == nullptr) {
        refuse(size);
        return block;
    }
    const uint32_t header[] = {type, static_cast<uint32_t>(bodyLength)};
    std::memcpy(block.get(), header, sizeof(header));
    return block;
}

void IpcPackageManager::append(IpcBlock block, unsigned size) {
    MutexLock lock(mutex);
    packages.emplace_back(size, std::move(block));
    ready.notify_all();
}

bool IpcPackageManager::appendReqIpcPackage(const TesuReqIpcPackage* request) {
    const uint64_t bodyLength = uint64_t{IPC_REQUEST_HEAD_SIZE} + request->length;
    IpcBlock block = newPackage(IPC_PACKAGE_REQUEST, bodyLength);
    if (block == nullptr) {
        return false;
    }
    static_assert(offsetof(TesuReqIpcPackage, length) + sizeof(request->length) ==
                  IPC_REQUEST_HEAD_SIZE);
    char* body = block.get() + IPC_PACKAGE_HEADER_SIZE;
    std::memcpy(body, request, IPC_REQUEST_HEAD_SIZE);
    if (request->length > 0) {
        std::memcpy(body + IPC_REQUEST_HEAD_SIZE, request->data, request->length);
    }
    append(std::move(block), static_cast<unsigned>(bodyLength) + IPC_PACKAGE_HEADER_SIZE);
    return true;
}

bool IpcPackageManager::appendRespIpcPackage(const TesuRespIpcPackage* response) {
    const uint64_t bodyLength = uint64_t{IPC_RESPONSE_RECORD_SIZE} + response->length;
    IpcBlock block = newPackage(IPC_PACKAGE_RESPONSE, bodyLength);
    if (block == nullptr) {
        return false;
    }
    const uint32_t record[] = {response->requestId, static_cast<uint32_t>(response->result),
                               response->length, 0};
    static_assert(sizeof(record) == IPC_RESPONSE_RECORD_SIZE);
    char* body = block.get() + IPC_PACKAGE_HEADER_SIZE;
    std::memcpy(body, record, sizeof(record));
    if (response->length > 0) {
        std::memcpy(body + sizeof(record), response->data, response->length);
    }
    append(std::move(block), static_cast<unsigned>(bodyLength) + IPC_PACKAGE_HEADER_SIZE);
    return true;
}

bool IpcPackageManager::buildAndAppendSecondIpcPackage(unsigned type, const char* data,
                                                       unsigned length) {
    if (type > IPC_PACKAGE_EVENT) {
        return false;
    }
    IpcBlock block = newPackage(type, length);
    if (block == nullptr) {
        return false;
    }
    if (length > 0) {
        std::memcpy(block.get() + IPC_PACKAGE_HEADER_SIZE, data, length);
    }
    append(std::move(block), length + IPC_PACKAGE_HEADER_SIZE);
    return true;
}

bool IpcPackageManager::buildAndAppendIpcPackage(const char* bytes, unsigned size) {
    if (size > maxPackageSize) {
        errno = EMSGSIZE;
        return refuse(size);
    }
    IpcBlock block(static_cast<char*>(std::malloc(std::max(size, 1U))));
    if (block == nullptr) {
        return refuse(size);
    }
    if (size > 0) {
        std::memcpy(block.get(), bytes, size);
    }
    append(std::move(block), size);
    return true;
}

void IpcPackageManager::moveFrontToBuffer(BufferState* writeBuffer) {
    const auto& [size, block] = packages.front();
    char* end = writeBuffer->data + writeBuffer->length;
    std::memcpy(end, &size, IPC_FRAME_HEADER_SIZE);
    if (size > 0) {
        std::memcpy(end + IPC_FRAME_HEADER_SIZE, block.get(), size);
    }
    writeBuffer->length += static_cast<int>(size + IPC_FRAME_HEADER_SIZE);
    packages.pop_front();
}

bool IpcPackageManager::fillNextIpcPackageToBuffer(BufferState* writeBuffer) {
    MutexLock lock(mutex);
    const long long space = static_cast<long long>(writeBuffer->capacity) - writeBuffer->length;
    if (packages.empty() ||
        static_cast<long long>(packages.front().first) + IPC_FRAME_HEADER_SIZE >= space) {
        return false;
    }
    moveFrontToBuffer(writeBuffer);
    return true;
}

bool IpcPackageManager::fillIpcPackageToBuffer(BufferState* writeBuffer) {
    MutexLock lock(mutex);
    const bool any = !packages.empty();
    while (!packages.empty() &&
           static_cast<long long>(packages.front().first) + IPC_FRAME_HEADER_SIZE <=
               static_cast<long long>(writeBuffer->capacity) - writeBuffer->length) {
        moveFrontToBuffer(writeBuffer);
    }
    return any;
}

void IpcPackageManager::waitEventReady(int milliseconds) {
    MutexLock lock(mutex);
    mutex.waitFor(ready, std::chrono::milliseconds(milliseconds),
                  [this]() REQUIRES(mutex) { return !packages.empty(); });
}

void IpcPackageManager::notifyEventReady() {
    ready.notify_all();
}

unsigned IpcPackageManager::getIpcPackageCount() const {
    MutexLock lock(mutex);
    return static_cast<unsigned>(packages.size());
}

unsigned IpcPackageManager::getRefusedPackageCount() const {
    MutexLock lock(mutex);
    return refused;
}
