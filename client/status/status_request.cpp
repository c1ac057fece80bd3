// SPDX-License-Identifier: Apache-2.0
#include "client/status/status_request.h"

#include <android-base/unique_fd.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <cstring>

#include "ipc/frame.h"
#include "ipc/local_socket.h"
#include "records/contract.h"
#include "records/read_prefix.h"

namespace Tesu::Bpf {

namespace {

constexpr timeval PATIENCE{.tv_sec = 5, .tv_usec = 0};
// Of the request; it is the only one of its connection.
constexpr uint32_t REQUEST_ID = 1;

// What is of a kind that is not known here is left out.
void Take(const char* data, size_t size, StatusReport* report) {
    const auto length = static_cast<int64_t>(size);
    switch (ReadPrefix<uint32_t>(data, length)) {
        case STATUS_SERVICE:
            report->service = ReadPrefix<ServiceStatus>(data, length);
            break;
        case STATUS_PROGRAM:
            report->programs.push_back(ReadPrefix<ProgramStatus>(data, length));
            break;
        case STATUS_RING:
            report->rings.push_back(ReadPrefix<RingStatus>(data, length));
            break;
        case STATUS_CLIENT: {
            StatusReport::Client& client = report->clients.emplace_back();
            client.status = ReadPrefix<ClientStatus>(data, length);
            // The types are the last of it, whatever was added in front of them.
            const size_t count = client.status.typeCount;
            const size_t bytes = count * sizeof(client.types[0]);
            if (count != 0 && size >= sizeof(ClientStatus) &&
                bytes <= size - sizeof(ClientStatus)) {
                client.types.resize(count);
                std::memcpy(client.types.data(), data + size - bytes, bytes);
            }
            break;
        }
        default:
            break;
    }
}

// Takes one response into the report: how many follow it.
Result<int32_t> TakeResponse(const Package& package, StatusReport* report) {
    if (package.type != IPC_PACKAGE_RESPONSE || package.length < IPC_RESPONSE_HEAD_SIZE ||
        ReadWord(package.body) != REQUEST_ID) {
        return Failure("the other side does not speak the protocol");
    }
    const auto left = static_cast<int32_t>(ReadWord(package.body + sizeof(uint32_t)));
    if (left < 0) {
        return Failure("this daemon does not report its status, or cannot at the moment");
    }
    if (package.length > IPC_RESPONSE_RECORD_SIZE) {
        Take(package.body + IPC_RESPONSE_RECORD_SIZE, package.length - IPC_RESPONSE_RECORD_SIZE,
             report);
    }
    return left;
}

}  // namespace

Result<StatusReport> RequestStatus(const std::string& socketName) {
    const android::base::unique_fd socket(ConnectLocalSocket(socketName.c_str(), SOCK_CLOEXEC));
    if (!socket.ok()) {
        return SystemFailure("no daemon is listening on @" + socketName);
    }
    setsockopt(socket.get(), SOL_SOCKET, SO_RCVTIMEO, &PATIENCE, sizeof(PATIENCE));
    char request[REQUEST_FRAME_SIZE(0)];
    WriteRequest(request, REQUEST_ID, STATUS_COMMAND, nullptr, 0);
    send(socket.get(), request, sizeof(request), MSG_NOSIGNAL);

    std::vector<char> storage(IPC_BUFFER_SIZE);
    FrameBuffer received{
        .cursor = 0, .length = 0, .capacity = storage.size(), .data = storage.data()};
    StatusReport report;
    while (true) {
        Package package;
        char fault[FRAME_FAULT_SIZE];
        const FrameState state = TakePackage(&received, &package, fault);
        if (state == FRAME_IMPOSSIBLE) {
            return Failure(fault);
        }
        if (state == FRAME_TAKEN) {
            const Result<int32_t> left = TakeResponse(package, &report);
            if (!left) {
                return Failure(left.error());
            }
            if (*left == 0) {
                return report;
            }
            continue;
        }
        const ssize_t count = ReceiveFrames(socket.get(), &received);
        if (count == 0) {
            return Failure("the daemon closed the connection");
        }
        if (count < 0) {
            return SystemFailure("the daemon does not answer");
        }
    }
}

}  // namespace Tesu::Bpf
