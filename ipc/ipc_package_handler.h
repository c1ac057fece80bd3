// SPDX-License-Identifier: Apache-2.0
//
// What happens to a package once it has been received: IpcPackageHandler routes it by type to a
// handler (the service's side), IpcReqCallBackManager finds the callback that waits for a response
// (the requesting side).
#pragma once

#include <functional>
#include <map>

#include "ipc/ipc_package.h"
#include "util/export.h"
#include "util/mutex.h"

// (connection, body, body length in bytes, the connection's write buffer); -1 stops the processing
// of the read buffer. The body may be unaligned and is valid only during the call.
using IpcHandlerFunction = std::function<int(int, char*, int, BufferState*)>;

// Used by the socket loop thread alone.
class TESU_API IpcPackageHandler {
  public:
    explicit IpcPackageHandler(const std::map<unsigned int, IpcHandlerFunction>& handlers);

    // Handles every complete package at the cursor, advancing it; an incomplete tail is left. False
    // when a handler returned -1: the cursor then stays at its package.
    bool handleAllIpcPackageInBuffer(int fd, BufferState* readBuffer, BufferState* writeBuffer);

    // Handles one package of `length` bytes. Returns its handler's result; 0 for a type without a
    // handler and for a package whose header or body does not fit `length`: those are ignored.
    int handleSecondIpcPackage(int fd, char* package, int length, BufferState* writeBuffer);

  private:
    std::map<unsigned int, IpcHandlerFunction> handlers;
};

// (request id, result, data, data length in bytes).
using IpcResponseCallback = std::function<int(unsigned int, int, char*, unsigned int)>;

// Any thread. A callback runs under the manager's lock, at most once, and must not call back into
// the same manager.
class TESU_API IpcReqCallBackManager {
  public:
    // A fresh request id; wraps from 4294967295 to 0.
    unsigned int getReqId();
    // True when the id was new, false when an earlier callback was replaced.
    bool addIpcReqCallBack(unsigned int requestId, IpcResponseCallback callback);
    // Withdraws an id that will not be answered; false when it was not there.
    bool delIpcReq(unsigned int requestId);
    // `response` points at a received response body of at least 12 bytes, which may be unaligned.
    // False when nobody waits for its id.
    bool handleReqCallBack(TesuRespIpcPackage* response);

  private:
    Tesu::Bpf::Mutex mutex;
    unsigned int nextRequestId GUARDED_BY(mutex) = 0;
    std::map<unsigned int, IpcResponseCallback> callbacks GUARDED_BY(mutex);
};
