// SPDX-License-Identifier: Apache-2.0
//
// A request as it lies on the stream; the format is in ipc/ipc_package.h.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "ipc/ipc_package.h"

namespace Tesu::Bpf {

// `command`: shorter than IPC_COMMAND_SIZE.
inline std::string RequestFrame(uint32_t requestId, std::string_view command,
                                std::string_view data = {}) {
    const auto dataLength = static_cast<uint32_t>(data.size());
    const uint32_t bodyLength = IPC_REQUEST_HEAD_SIZE + dataLength;
    const uint32_t head[] = {IPC_PACKAGE_HEADER_SIZE + bodyLength, IPC_PACKAGE_REQUEST, bodyLength,
                             requestId};
    std::string frame(reinterpret_cast<const char*>(head), sizeof(head));
    frame.append(command);
    frame.resize(sizeof(head) + IPC_COMMAND_SIZE);
    frame.append(reinterpret_cast<const char*>(&dataLength), sizeof(dataLength));
    return frame.append(data);
}

}  // namespace Tesu::Bpf
