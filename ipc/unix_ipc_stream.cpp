// SPDX-License-Identifier: Apache-2.0
//
// The bytes of a connection: its guard and buffers, receiving and sending.
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "ipc/ipc_package.h"
#include "ipc/unix_ipc_manager.h"
#include "util/log.h"

using Tesu::Bpf::MutexLock;

namespace {

// Sends tried on a full socket before the loop is left to wait for room.
constexpr int MAX_SEND_RETRIES = 11;
// Buffers sent at most by a thread that has other work than this client.
constexpr int MAX_BUFFERS_AT_ONCE = 8;

}  // namespace

// Waits for the connection's guard. While this thread waited the connection may have been closed
// and its number given to another: the guard is then the other's.
UnixIpcManager::ConnectionGuard UnixIpcManager::lockConnection(int fd) {
    ConnectionGuard guard{.mutex = findGuard(fd), .lock = {}};
    while (guard.mutex != nullptr) {
        guard.lock = std::unique_lock(*guard.mutex);
        std::shared_ptr<ConnectionMutex> current = findGuard(fd);
        if (current == guard.mutex) {
            break;
        }
        guard.lock.unlock();
        guard.lock.release();
        guard.mutex = std::move(current);
    }
    return guard;
}

std::shared_ptr<UnixIpcManager::ConnectionMutex> UnixIpcManager::findGuard(int fd) {
    MutexLock lock(bufferMutex);
    const auto found = writeMutexes.find(fd);
    return found == writeMutexes.end() ? nullptr : found->second;
}

// Map nodes stay where they are, so the pointer is good while the connection's guard is held.
BufferState* UnixIpcManager::findBuffer(BufferMap buffers, int fd) {
    MutexLock lock(bufferMutex);
    const auto found = (this->*buffers).find(fd);
    return found == (this->*buffers).end() ? nullptr : &found->second;
}

bool UnixIpcManager::allocateBuffer(BufferMap buffers, int fd, const char* direction) {
    const ConnectionGuard guard = lockConnection(fd);
    MutexLock lock(bufferMutex);
    BufferState& buffer = (this->*buffers)[fd];
    std::free(buffer.data);
    buffer = BufferState{};
    buffer.data = static_cast<char*>(std::malloc(static_cast<size_t>(bufferSize)));
    if (buffer.data == nullptr) {
        TESU_LOGE(name, "[UnixIpcManager] Allocate %s buffer for fd(%d) failed: %d, message: %s",
                  direction, fd, errno, strerror(errno));
        return false;
    }
    buffer.capacity = bufferSize;
    return true;
}

bool UnixIpcManager::allocateReadBufferForFd(int fd) {
    return allocateBuffer(&UnixIpcManager::readBuffers, fd, "read");
}

bool UnixIpcManager::allocateWriteBufferForFd(int fd) {
    return allocateBuffer(&UnixIpcManager::writeBuffers, fd, "write");
}

bool UnixIpcManager::freeBufferForFd(int fd) {
    const ConnectionGuard guard = lockConnection(fd);
    MutexLock lock(bufferMutex);
    errno = 0;
    for (auto* buffers : {&readBuffers, &writeBuffers}) {
        const auto found = buffers->find(fd);
        if (found != buffers->end()) {
            std::free(found->second.data);
            buffers->erase(found);
        }
    }
    writeMutexes.erase(fd);
    return errno == 0;
}

bool UnixIpcManager::clearAllBuffer() {
    MutexLock lock(bufferMutex);
    errno = 0;
    for (auto* buffers : {&readBuffers, &writeBuffers}) {
        for (const auto& [fd, buffer] : *buffers) {
            std::free(buffer.data);
        }
        buffers->clear();
    }
    writeMutexes.clear();
    return errno == 0;
}

int UnixIpcManager::onClientReadableCallback(epoll_event event) {
    const int fd = event.data.fd;
    const char* message = nullptr;
    // The guard is released before a connection is closed, because `close` runs without a lock.
    switch (receive(fd)) {
        case ReceiveOutcome::HANDLED:
            return EPOLL_RESULT_OK;
        case ReceiveOutcome::NO_BUFFER:
            return EPOLL_RESULT_ERROR;
        case ReceiveOutcome::PEER_CLOSED:
            return EPOLL_RESULT_NOTHING_LEFT;
        case ReceiveOutcome::BUFFER_FULL:
            TESU_LOGE(name, "[UnixIpcManager] no complete package in %d bytes, close fd(%d)",
                      bufferSize, fd);
            onClientCloseCallback(event);
            return EPOLL_RESULT_CLOSED;
        case ReceiveOutcome::FAILED:
            if (!handlers.closeOnError) {
                return EPOLL_RESULT_ERROR;
            }
            message = "[UnixIpcManager] Server socket abnormal close!!";
            break;
        case ReceiveOutcome::REFUSED:
            if (!handlers.closeOnError) {
                return EPOLL_RESULT_OK;
            }
            message = "[UnixIpcManager] Server socket abnormal close!";
            break;
    }
    const int closed = closeConnection(fd);
    reconnectIfLost(fd, message);
    return closed == -1 ? EPOLL_RESULT_ERROR : EPOLL_RESULT_CLOSED;
}

// One receive, and what the owner makes of it.
UnixIpcManager::ReceiveOutcome UnixIpcManager::receive(int fd) {
    const ConnectionGuard guard = lockConnection(fd);
    BufferState* readBuffer = findBuffer(&UnixIpcManager::readBuffers, fd);
    if (readBuffer == nullptr) {
        TESU_LOGE(name, "[UnixIpcManager][ClientCallback] Not allocate read buffer for the fd(%d)!",
                  fd);
        return ReceiveOutcome::NO_BUFFER;
    }
    if (handlers.saveUnuseBuffer) {
        SaveUnuseBuffer(readBuffer);
    }
    if (readBuffer->length == readBuffer->capacity) {
        return ReceiveOutcome::BUFFER_FULL;
    }
    const ssize_t received = recvfrom(
        fd, readBuffer->data + readBuffer->length,
        static_cast<size_t>(readBuffer->capacity - readBuffer->length), 0, nullptr, nullptr);
    if (received == 0) {
        return ReceiveOutcome::PEER_CLOSED;
    }
    if (received == -1) {
        TESU_LOGE(name, "[UnixIpcManager] Recv data failed: %d, message: %s", errno,
                  strerror(errno));
        readBuffer->cursor = readBuffer->length = 0;
        return ReceiveOutcome::FAILED;
    }
    readBuffer->length += static_cast<int>(received);

    BufferState* writeBuffer = nullptr;
    {
        MutexLock lock(bufferMutex);
        writeBuffer = &writeBuffers[fd];
    }
    if (handlers.readable(fd, readBuffer, writeBuffer) == -1) {
        TESU_LOGE(name, "[UnixIpcManager] Callback ipc read handler failed: %d, message: %s", errno,
                  strerror(errno));
        readBuffer->cursor = readBuffer->length = 0;
        writeBuffer->cursor = writeBuffer->length = 0;
        return ReceiveOutcome::REFUSED;
    }
    if (writeBuffer->cursor != writeBuffer->length) {
        epollManager->notifyWriteEventReady(fd);
    }
    return ReceiveOutcome::HANDLED;
}

int UnixIpcManager::onCommWriteCallback(epoll_event event) {
    const int fd = event.data.fd;
    const ConnectionGuard guard = lockConnection(fd);
    BufferState* writeBuffer = findBuffer(&UnixIpcManager::writeBuffers, fd);
    if (writeBuffer == nullptr) {
        TESU_LOGE(name,
                  "[UnixIpcManager][ClientCallback] Not allocate write buffer for the fd(%d)!", fd);
        return EPOLL_RESULT_ERROR;
    }
    if (!sendBuffered(fd, writeBuffer)) {
        return EPOLL_RESULT_ERROR;
    }
    if (handlers.writeable && handlers.writeable(fd, writeBuffer) == -1) {
        TESU_LOGE(name, "[UnixIpcManager] Callback ipc write handler failed: %d, message: %s",
                  errno, strerror(errno));
        return EPOLL_RESULT_ERROR;
    }
    if (writeBuffer->cursor == writeBuffer->length) {
        return EPOLL_RESULT_NOTHING_LEFT;
    }
    return sendBuffered(fd, writeBuffer) ? EPOLL_RESULT_OK : EPOLL_RESULT_ERROR;
}

// Sends what is in the buffer and leaves it empty. Needs the connection's guard.
bool UnixIpcManager::sendBuffered(int fd, BufferState* writeBuffer) {
    if (writeBuffer->cursor != writeBuffer->length && !ensureDataSend(fd, writeBuffer)) {
        TESU_LOGE(name, "[UnixIpcManager] Send ipc data failed: %d, message: %s", errno,
                  strerror(errno));
        return false;
    }
    writeBuffer->cursor = writeBuffer->length = 0;
    return true;
}

bool UnixIpcManager::ensureDataSend(int fd, BufferState* writeBuffer) {
    int retries = 0;
    int error = 0;
    while (writeBuffer->length > writeBuffer->cursor) {
        if (retries >= MAX_SEND_RETRIES) {
            TESU_LOGE(name,
                      "[UnixIpcManager] Send data 10 times failed! leftSize: %zd, error: %d, "
                      "message: %s, clientFd: %d",
                      static_cast<ssize_t>(writeBuffer->length - writeBuffer->cursor), error,
                      strerror(error), fd);
            // What is left goes out when the peer has read: without this nothing would wake the
            // loop for it, since a failed write callback disarms.
            epollManager->notifyWriteEventReady(fd);
            break;
        }
        const ssize_t sent =
            sendto(fd, writeBuffer->data + writeBuffer->cursor,
                   static_cast<size_t>(writeBuffer->length - writeBuffer->cursor), 0, nullptr, 0);
        if (sent >= 0) {
            writeBuffer->cursor += static_cast<int>(sent);
            continue;
        }
        error = errno;
        if (error != EAGAIN) {
            TESU_LOGE(name,
                      "[UnixIpcManager] Send data failed! leftSize: %zd, error: %d, message: %s, "
                      "clientFd: %d",
                      static_cast<ssize_t>(writeBuffer->length - writeBuffer->cursor), error,
                      strerror(error), fd);
            errno = error;
            if (isServer) {
                disconnectIfBroken(fd, sent);
            }
            break;
        }
        ++retries;
        TESU_LOGW(name, "[UnixIpcManager] Socket buffer full! tryCount: %d, message: %s", retries,
                  strerror(EAGAIN));
        sched_yield();
    }
    const bool allSent = writeBuffer->length == writeBuffer->cursor;
    // After a partial send the front is free again for a reply to be appended.
    SaveUnuseBuffer(writeBuffer);
    errno = error;
    return allSent;
}

// After a send with this result and errno: whether none will ever succeed.
bool UnixIpcManager::disconnectIfBroken(int fd, ssize_t sent) {
    const bool isBroken =
        sent == -1 && (errno == EPIPE || errno == ECONNRESET || errno == ENOTCONN);
    if (isBroken) {
        disconnect(fd);
    }
    return isBroken;
}

// The loop is asked where it, or another thread, is at the connection just now: it may have looked
// at the queue for the last time.
IpcWriteResult UnixIpcManager::writeWhatFits(int fd) {
    const std::shared_ptr<ConnectionMutex> mutex = findGuard(fd);
    if (mutex == nullptr) {
        return IpcWriteResult::GONE;
    }
    const std::unique_lock lock(*mutex, std::try_to_lock);
    const bool isHeld = lock.owns_lock() && findGuard(fd) == mutex;
    if (epollManager->joinWriteEvent(fd)) {
        // The loop waits for room and would never hear of a peer that reads no more.
        if (isHeld) {
            disconnectIfBroken(fd, send(fd, "", 0, MSG_DONTWAIT | MSG_NOSIGNAL));
        }
        return IpcWriteResult::DONE;
    }
    BufferState* writeBuffer = findBuffer(&UnixIpcManager::writeBuffers, fd);
    if (!isHeld || writeBuffer == nullptr) {
        return epollManager->notifyWriteEventReady(fd) ? IpcWriteResult::DONE
                                                       : IpcWriteResult::GONE;
    }
    for (int i = 0; i < MAX_BUFFERS_AT_ONCE; ++i) {
        if (writeBuffer->cursor == writeBuffer->length) {
            writeBuffer->cursor = writeBuffer->length = 0;
            if (handlers.writeable(fd, writeBuffer) == -1 || writeBuffer->length == 0) {
                return IpcWriteResult::DONE;
            }
        }
        const ssize_t sent = send(fd, writeBuffer->data + writeBuffer->cursor,
                                  static_cast<size_t>(writeBuffer->length - writeBuffer->cursor),
                                  MSG_DONTWAIT | MSG_NOSIGNAL);
        if (disconnectIfBroken(fd, sent)) {
            return IpcWriteResult::DONE;
        }
        writeBuffer->cursor += static_cast<int>(std::max<ssize_t>(sent, 0));
        if (writeBuffer->cursor < writeBuffer->length) {
            break;
        }
    }
    SaveUnuseBuffer(writeBuffer);
    return IpcWriteResult::LEFT;
}

int UnixIpcManager::writeDataNow(int fd) {
    const ConnectionGuard guard = lockConnection(fd);
    return epollManager->writeEventNow(fd) ? 1 : 0;
}
