// SPDX-License-Identifier: Apache-2.0
#include "ipc/ipc_package_handler.h"

#include <cstdint>
#include <utility>

#include "util/log.h"

using Tesu::Bpf::MutexLock;

IpcPackageHandler::IpcPackageHandler(const std::map<unsigned int, IpcHandlerFunction>& handlers)
    : handlers(handlers) {}

bool IpcPackageHandler::handleAllIpcPackageInBuffer(int fd, BufferState* readBuffer,
                                                    BufferState* writeBuffer) {
    long long headerLength = 0;
    long long packageLength = 0;
    while (readBuffer->cursor < readBuffer->length &&
           CheckIpcPackageComplete(readBuffer, &headerLength, &packageLength)) {
        char* package = readBuffer->data + readBuffer->cursor + headerLength;
        if (handleSecondIpcPackage(fd, package, static_cast<int>(packageLength), writeBuffer) ==
            -1) {
            return false;
        }
        readBuffer->cursor += static_cast<int>(headerLength + packageLength);
    }
    return true;
}

int IpcPackageHandler::handleSecondIpcPackage(int fd, char* package, int length,
                                              BufferState* writeBuffer) {
    if (length < static_cast<int>(IPC_PACKAGE_HEADER_SIZE)) {
        return 0;
    }
    const uint32_t bodyLength = ReadWord(package + 4);
    if (bodyLength > static_cast<uint32_t>(length) - IPC_PACKAGE_HEADER_SIZE) {
        return 0;
    }
    // By subscript: a type that is not known is known from now on, as one without a handler.
    const IpcHandlerFunction& handler = handlers[ReadWord(package)];
    if (!handler) {
        return 0;
    }
    return handler(fd, package + IPC_PACKAGE_HEADER_SIZE, static_cast<int>(bodyLength),
                   writeBuffer);
}

unsigned int IpcReqCallBackManager::getReqId() {
    MutexLock lock(mutex);
    return nextRequestId++;
}

bool IpcReqCallBackManager::addIpcReqCallBack(unsigned int requestId,
                                              IpcResponseCallback callback) {
    MutexLock lock(mutex);
    return callbacks.insert_or_assign(requestId, std::move(callback)).second;
}

bool IpcReqCallBackManager::delIpcReq(unsigned int requestId) {
    MutexLock lock(mutex);
    return callbacks.erase(requestId) > 0;
}

bool IpcReqCallBackManager::handleReqCallBack(TesuRespIpcPackage* response) {
    char* body = reinterpret_cast<char*>(response);
    const uint32_t requestId = ReadWord(body);
    MutexLock lock(mutex);
    const auto found = callbacks.find(requestId);
    if (found == callbacks.end()) {
        TESU_LOGD(TESU_LOG_UTILS,
                  "[TESUBPFDEBUG] [IpcReqCallBackManager] Unregister request callback functuin: "
                  "reqId: %u",
                  requestId);
        return false;
    }
    if (found->second) {
        found->second(requestId, static_cast<int>(ReadWord(body + 4)),
                      body + IPC_RESPONSE_HEAD_SIZE, ReadWord(body + 8));
    }
    callbacks.erase(found);
    return true;
}
