// SPDX-License-Identifier: Apache-2.0
//
// The service's side of a client connection. Runs on the socket loop thread.
#include <android-base/properties.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>

#include "records/contract.h"
#include "records/read_prefix.h"
#include "service/status_report.h"
#include "service/tesu_bpf_service.h"
#include "util/free_memory.h"
#include "util/log.h"
#include "util/string_util.h"

namespace Tesu::Bpf {

namespace {

// A subscription request: the head of a request body, and the event type as its data.
struct SubscriptionRequest {
    uint32_t requestId;
    char command[IPC_COMMAND_SIZE];
    uint32_t dataLength;  // not consulted
    int32_t eventType;
};
static_assert(sizeof(SubscriptionRequest) == IPC_REQUEST_HEAD_SIZE + sizeof(int32_t));

// The whole reply, frame length included; a response without data.
struct SubscriptionReply {
    uint32_t frameLength = IPC_PACKAGE_HEADER_SIZE + IPC_RESPONSE_HEAD_SIZE;
    uint32_t type = IPC_PACKAGE_RESPONSE;
    uint32_t bodyLength = IPC_RESPONSE_HEAD_SIZE;
    uint32_t requestId = 0;
    int32_t result = 0;
    uint32_t dataLength = 0;
};
static_assert(sizeof(SubscriptionReply) == 24);

// The whole text must match, its NUL included.
template <size_t N>
bool IsCommand(const SubscriptionRequest& request, const char (&command)[N]) {
    static_assert(N <= IPC_COMMAND_SIZE);
    return std::memcmp(request.command, command, N) == 0;
}

}  // namespace

int TesuBpfService::onClientLibConnection(int fd) {
    if (EventManager::GetInstance()->addClient(fd)) {
        TESU_LOGD(TESU_LOG_SERVICE, "[TESUBPFDEBUG] [TesuBpfService] on client connection %d", fd);
    }
    return 0;
}

int TesuBpfService::onClientLibClose(int fd) {
    EventManager* const events = EventManager::GetInstance();
    events->removeClient(fd);
    if (events->takeHasDisconnected()) {
        ReturnFreeMemory();
    }
    TESU_LOGD(TESU_LOG_SERVICE, "[TESUBPFDEBUG] [TesuBpfService] on client disconnection %d", fd);
    return 0;
}

int TesuBpfService::onClientLibReadable(int fd, BufferState* readBuffer, BufferState* writeBuffer) {
    if (packageHandler->handleAllIpcPackageInBuffer(fd, readBuffer, writeBuffer)) {
        return 0;
    }
    long long headerLength = 0;
    long long packageLength = 0;
    CheckIpcPackageComplete(readBuffer, &headerLength, &packageLength);
    TESU_LOGE(TESU_LOG_SERVICE,
              "[TesuBpfService] Resv event: bufferCursor (%zd), numSize (%lld), dataSize (%lld), "
              "readCount (%zd)",
              static_cast<ssize_t>(readBuffer->cursor), headerLength, packageLength,
              static_cast<ssize_t>(readBuffer->length));
    TESU_LOGE(TESU_LOG_SERVICE, "[TesuBpfService] BUFFER HEXDUMP: %s",
              ConvertToHexString(readBuffer->data + readBuffer->cursor,
                                 static_cast<int>(headerLength + packageLength))
                  .c_str());
    return -1;
}

int TesuBpfService::onClientLibWriteable(int fd, BufferState* writeBuffer) {
    EventManager::GetInstance()->fillWriteBuffer(fd, writeBuffer);
    return 0;
}

int TesuBpfService::onEventProvideReqCallBack(int fd, char* body, long long length,
                                              BufferState* writeBuffer) {
    const auto request = ReadPrefix<SubscriptionRequest>(body, length);
    SubscriptionReply reply{.requestId = request.requestId};
    const bool whole = length >= static_cast<long long>(sizeof(request));
    if (length >= IPC_REQUEST_HEAD_SIZE && IsCommand(request, STATUS_COMMAND) &&
        reportStatus(fd, request.requestId)) {
        return 0;
    }
    if (whole && IsCommand(request, REGISTER_COMMAND)) {
        const bool isAdded = EventManager::GetInstance()->AddObserverEvent(fd, request.eventType);
        reply.result = isAdded ? 0 : -1;
    } else if (whole && IsCommand(request, UNREGISTER_COMMAND)) {
        EventManager::GetInstance()->DelObserverEvent(fd, request.eventType);
    } else {
        reply.result = -1;
    }
    // The write buffer always keeps one byte free.
    if (writeBuffer->capacity - writeBuffer->length <= static_cast<int>(sizeof(reply))) {
        TESU_LOGE(TESU_LOG_SERVICE, "Send data size too big! ");
        return 0;
    }
    std::memcpy(writeBuffer->data + writeBuffer->length, &reply, sizeof(reply));
    writeBuffer->length += static_cast<int>(sizeof(reply));
    return 0;
}

// False when there is no answer.
bool TesuBpfService::reportStatus(int fd, uint32_t requestId) {
    EventManager* const events = EventManager::GetInstance();
    if (!events->mayAsk(fd)) {
        return false;
    }
    ServiceStatus self{.kind = STATUS_SERVICE,
                       .pid = getpid(),
                       .startTime = startTime,
                       .version = TESUBPF_VERSION,
                       .queueBytes = FrameBlock::BytesInUse(),
                       .dumpFolder = {}};
    android::base::GetProperty(DUMP_DIR_PROPERTY, DUMP_DIR)
        .copy(self.dumpFolder, sizeof(self.dumpFolder) - 1);
    const std::vector<std::string> report =
        BuildStatusReport(self, GetBpfProgramStates(),
                          {ringStatus(RING_CORE), ringStatus(RING_GPL)}, events->clientStates());
    std::vector<TesuRespIpcPackage> responses;
    responses.reserve(report.size());
    for (const std::string& data : report) {
        responses.push_back({.requestId = requestId,
                             .result = static_cast<int>(report.size() - responses.size() - 1),
                             .length = static_cast<unsigned>(data.size()),
                             .data = data.data()});
    }
    const bool isQueued = events->respond(fd, responses);
    ipcManager->notifyNeedWriteData(fd);
    return isQueued;
}

void TesuBpfService::notifyClientEventReady(const std::vector<int>& fds) {
    for (const int fd : fds) {
        ipcManager->notifyNeedWriteData(fd);
    }
}

}  // namespace Tesu::Bpf
