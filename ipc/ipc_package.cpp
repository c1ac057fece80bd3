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

// Queues a package of these parts; refused when it would not fit the write buffer or memory ran
// out.
bool IpcPackageManager::append(std::initializer_list<std::string_view> parts) {
    uint64_t size = 0;
    for (const std::string_view part : parts) {
        size += part.size();
    }
    IpcBlock block;
    if (size <= maxPackageSize) {
        block.reset(
            static_cast<char*>(std::malloc(std::max(static_cast<size_t>(size), size_t{1}))));
    } else {
        errno = EMSGSIZE;
    }
    if (block == nullptr) {
        {
            MutexLock lock(mutex);
            ++refused;
        }
        TESU_LOGE(TESU_LOG_UTILS,
                  "[IpcPackageManager] package refused: %llu bytes, at most %u fit, message: %s",
                  static_cast<unsigned long long>(size), maxPackageSize, strerror(errno));
        return false;
    }
    char* end = block.get();
    for (const std::string_view part : parts) {
        end = std::copy(part.begin(), part.end(), end);
    }
    MutexLock lock(mutex);
    packages.emplace_back(static_cast<unsigned>(size), std::move(block));
    ready.notify_all();
    return true;
}

bool IpcPackageManager::appendReqIpcPackage(const TesuReqIpcPackage* request) {
    static_assert(offsetof(TesuReqIpcPackage, length) + sizeof(request->length) ==
                  IPC_REQUEST_HEAD_SIZE);
    const uint32_t header[] = {IPC_PACKAGE_REQUEST, IPC_REQUEST_HEAD_SIZE + request->length};
    return append({BytesOf(header),
                   {reinterpret_cast<const char*>(request), IPC_REQUEST_HEAD_SIZE},
                   {request->data, request->length}});
}

bool IpcPackageManager::appendRespIpcPackage(const TesuRespIpcPackage* response) {
    const uint32_t head[] = {IPC_PACKAGE_RESPONSE, IPC_RESPONSE_RECORD_SIZE + response->length,
                             response->requestId,  static_cast<uint32_t>(response->result),
                             response->length,     0};
    static_assert(sizeof(head) == IPC_PACKAGE_HEADER_SIZE + IPC_RESPONSE_RECORD_SIZE);
    return append({BytesOf(head), {response->data, response->length}});
}

bool IpcPackageManager::buildAndAppendSecondIpcPackage(unsigned type, const char* data,
                                                       unsigned length) {
    const uint32_t header[] = {type, length};
    return type <= IPC_PACKAGE_EVENT && append({BytesOf(header), {data, length}});
}

bool IpcPackageManager::buildAndAppendIpcPackage(const char* bytes, unsigned size) {
    return append({{bytes, size}});
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
