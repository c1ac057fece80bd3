// SPDX-License-Identifier: Apache-2.0
#include "client/event_stream.h"

#include <chrono>
#include <cstring>
#include <utility>

#include "ipc/frame_reader.h"
#include "ipc/local_socket.h"
#include "ipc/unix_ipc_manager.h"
#include "records/contract.h"

namespace Tesu::Bpf {

namespace {

// Log tag and name of the stream's thread.
constexpr const char* STREAM_NAME = "TesuEventStream";
constexpr int EPOLL_SIZE = 1;
constexpr int EVENTS_PER_WAIT = 4;
// Between a lost connection and the next, so that a peer that hangs up on everybody, or talks
// nonsense, is not connected to without end.
constexpr std::chrono::seconds RECONNECT_PAUSE{1};

template <class... Arguments, class... Given>
void Call(const std::function<void(Arguments...)>& callback, Given&&... arguments) {
    if (callback) {
        callback(std::forward<Given>(arguments)...);
    }
}

}  // namespace

// The transport's client mode, which says when it begins to connect: at the start, and whenever the
// connection was lost, however that came about.
class EventStream::Connection : public UnixIpcManager {
  public:
    Connection(EventStream* stream, const std::string& socketName, IpcHandlerState handlers)
        : UnixIpcManager(false, IPC_BUFFER_SIZE, socketName, std::move(handlers), STREAM_NAME,
                         EPOLL_SIZE, EVENTS_PER_WAIT),
          stream(stream) {}
    ~Connection() override { shutdown(); }

    bool connect() override { return stream->onConnecting() && UnixIpcManager::connect(); }

    // Returns when the stream's thread has ended.
    void end() { shutdown(); }

  private:
    EventStream* const stream;
};

EventStream::EventStream(std::string socketName, std::vector<int> eventTypes,
                         EventStreamListener listener)
    : socketName(std::move(socketName)),
      eventTypes(std::move(eventTypes)),
      listener(std::move(listener)) {
    IpcHandlerState handlers;
    handlers.saveUnuseBuffer = true;
    handlers.closeOnError = true;
    handlers.readable = [this](int /*fd*/, BufferState* readBuffer, BufferState* /*writeBuffer*/) {
        return onReadable(readBuffer);
    };
    handlers.writeable = [this](int /*fd*/, BufferState* writeBuffer) {
        return onWriteable(writeBuffer);
    };
    handlers.connection = [this](int fd) { onConnected(fd); };
    connection = std::make_unique<Connection>(this, this->socketName, std::move(handlers));
}

EventStream::~EventStream() {
    stop();
    connection->end();
}

void EventStream::start() {
    connection->start();
}

void EventStream::stop() {
    {
        const std::lock_guard lock(stopMutex);
        stopRequested = true;
    }
    stopCondition.notify_all();
    connection->stop();
}

// False when the stream was stopped meanwhile.
bool EventStream::onConnecting() {
    if (isConnected) {
        isConnected = false;
        Call(listener.lost);
        if (sleepUnlessStopped()) {
            return false;
        }
    }
    if (!IsServiceListening(socketName)) {
        Call(listener.waiting);
    }
    return true;
}

void EventStream::onConnected(int fd) {
    isConnected = true;
    // What an earlier connection did not send or get answered is gone with it.
    requests = std::make_unique<IpcPackageManager>();
    responses = std::make_unique<IpcReqCallBackManager>();
    unanswered = eventTypes.size();
    Call(listener.connected);
    for (const int eventType : eventTypes) {
        subscribe(eventType);
    }
    connection->notifyNeedWriteData(fd);
}

void EventStream::subscribe(int eventType) {
    TesuReqIpcPackage request;
    request.requestId = responses->getReqId();
    std::strncpy(request.command, REGISTER_COMMAND, sizeof(request.command) - 1);
    request.length = sizeof(eventType);
    request.data = reinterpret_cast<const char*>(&eventType);
    responses->addIpcReqCallBack(
        request.requestId,
        [this, eventType](unsigned /*requestId*/, int result, char* /*data*/, unsigned /*length*/) {
            if (result != 0) {
                Call(listener.refused, eventType);
            }
            if (--unanswered == 0) {
                Call(listener.subscribed);
            }
            return 0;
        });
    requests->appendReqIpcPackage(&request);
}

int EventStream::onWriteable(BufferState* writeBuffer) {
    while (requests->fillNextIpcPackageToBuffer(writeBuffer)) {
    }
    return EPOLL_RESULT_OK;
}

int EventStream::onReadable(BufferState* readBuffer) {
    Result<std::optional<Package>> package = TakePackage(readBuffer);
    for (; package && *package; package = TakePackage(readBuffer)) {
        onPackage((*package)->type, const_cast<char*>((*package)->body), (*package)->length);
    }
    Call(listener.batchEnd);
    if (!package) {
        Call(listener.malformed, package.error());
        return EPOLL_RESULT_ERROR;
    }
    return EPOLL_RESULT_OK;
}

void EventStream::onPackage(uint32_t type, char* body, uint32_t length) {
    if (type == IPC_PACKAGE_EVENT) {
        Call(listener.event, body, length);
    } else if (type == IPC_PACKAGE_RESPONSE && length >= IPC_RESPONSE_HEAD_SIZE) {
        // Only the head is read there, and not as a struct.
        responses->handleReqCallBack(reinterpret_cast<TesuRespIpcPackage*>(body));
    }
}

// True when stopped, at the latest after the pause.
bool EventStream::sleepUnlessStopped() {
    std::unique_lock lock(stopMutex);
    return stopCondition.wait_for(lock, RECONNECT_PAUSE, [this] { return stopRequested; });
}

}  // namespace Tesu::Bpf
