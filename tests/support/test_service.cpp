// SPDX-License-Identifier: Apache-2.0
#include "tests/support/test_service.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>

#include "ipc/local_socket.h"
#include "tests/support/wait_until.h"
#include "tests/support/wire_client.h"

namespace {

constexpr int MAX_EVENTS = 8;

}  // namespace

TestService::TestService(const std::string& socketName) {
    IpcHandlerState handlers;
    handlers.saveUnuseBuffer = true;
    handlers.closeOnError = true;
    handlers.readable = [this](int /*fd*/, BufferState* readBuffer, BufferState* writeBuffer) {
        return onReadable(readBuffer, writeBuffer);
    };
    handlers.writeable = [this](int fd, BufferState* writeBuffer) {
        return onWriteable(fd, writeBuffer);
    };
    handlers.connection = [this](int fd) {
        const std::lock_guard lock(mutex);
        clients.try_emplace(fd);
    };
    handlers.close = [this](int fd) {
        const std::lock_guard lock(mutex);
        clients.erase(fd);
    };
    server = std::make_unique<UnixIpcManager>(true, IPC_BUFFER_SIZE, socketName,
                                              std::move(handlers), "TestService", 1, MAX_EVENTS);
    server->start();
    WaitUntil([&] { return Tesu::Bpf::IsServiceListening(socketName); });
}

TestService::~TestService() {
    server->stop();
    server.reset();
}

std::string TestService::uniqueSocketName() {
    static std::atomic<int> number{0};
    return "/tesubpf/test/" + std::to_string(getpid()) + "." + std::to_string(++number);
}

void TestService::refuse(int eventType) {
    const std::lock_guard lock(mutex);
    refusedTypes.push_back(eventType);
}

bool TestService::waitForSubscriptions(size_t count) {
    std::unique_lock lock(mutex);
    return changed.wait_for(lock, TEST_PATIENCE, [&] { return accepted.size() >= count; });
}

std::vector<int> TestService::subscriptions() {
    const std::lock_guard lock(mutex);
    return accepted;
}

void TestService::sendEvent(const std::string& event) {
    toEveryClient([&](Client& client) {
        client.events.buildAndAppendSecondIpcPackage(IPC_PACKAGE_EVENT, event.data(),
                                                     static_cast<unsigned>(event.size()));
    });
}

void TestService::sendBytes(const std::string& bytes) {
    toEveryClient([&](Client& client) { client.bytes += bytes; });
}

void TestService::toEveryClient(const std::function<void(Client&)>& action) {
    std::vector<int> fds;
    {
        const std::lock_guard lock(mutex);
        for (auto& [fd, client] : clients) {
            action(client);
            fds.push_back(fd);
        }
    }
    for (const int fd : fds) {
        server->notifyNeedWriteData(fd);
    }
}

int TestService::onReadable(BufferState* readBuffer, BufferState* writeBuffer) {
    long long headerLength = 0;
    long long packageLength = 0;
    while (CheckIpcPackageComplete(readBuffer, &headerLength, &packageLength)) {
        const char* const body =
            readBuffer->data + readBuffer->cursor + IPC_FRAME_HEADER_SIZE + IPC_PACKAGE_HEADER_SIZE;
        const std::string command(body + sizeof(uint32_t));
        int eventType = 0;
        std::memcpy(&eventType, body + IPC_REQUEST_HEAD_SIZE, sizeof(eventType));
        int32_t result = -1;
        {
            const std::lock_guard lock(mutex);
            if (command == "register-event-monitor" &&
                std::count(refusedTypes.begin(), refusedTypes.end(), eventType) == 0) {
                result = 0;
                accepted.push_back(eventType);
            }
        }
        changed.notify_all();
        uint32_t requestId = 0;
        std::memcpy(&requestId, body, sizeof(requestId));
        const std::string reply = WireClient::frame(
            IPC_PACKAGE_RESPONSE, WireClient::word(requestId) +
                                      WireClient::word(static_cast<uint32_t>(result)) +
                                      WireClient::word(0));
        std::memcpy(writeBuffer->data + writeBuffer->length, reply.data(), reply.size());
        writeBuffer->length += static_cast<int>(reply.size());
        readBuffer->cursor += static_cast<int>(headerLength + packageLength);
    }
    return 0;
}

int TestService::onWriteable(int fd, BufferState* writeBuffer) {
    const std::lock_guard lock(mutex);
    const auto found = clients.find(fd);
    if (found == clients.end()) {
        return 0;
    }
    Client& client = found->second;
    while (client.events.fillNextIpcPackageToBuffer(writeBuffer)) {
    }
    if (client.events.getIpcPackageCount() == 0) {
        const size_t room = static_cast<size_t>(writeBuffer->capacity - writeBuffer->length);
        const size_t count = std::min(room, client.bytes.size());
        std::memcpy(writeBuffer->data + writeBuffer->length, client.bytes.data(), count);
        writeBuffer->length += static_cast<int>(count);
        client.bytes.erase(0, count);
    }
    return 0;
}
