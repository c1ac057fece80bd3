// SPDX-License-Identifier: Apache-2.0
//
// The service's events as they happen: keeps a connection to the service, subscribes to the wanted
// types each time it is made, and hands every event to a listener.
//
//   construct -> start -> ... -> stop (or destroy) -> destroy
//
// Without a service it tries again every 5 seconds until stop(), a second after a connection was
// lost for the first time. Events of the time between are not made up for.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "ipc/ipc_package.h"
#include "ipc/ipc_package_handler.h"

namespace Tesu::Bpf {

// All run on the stream's own thread, with no lock held by the stream, and may call
// EventStream::stop(). One that blocks holds up the stream, and in the end the service's queue for
// this client. Empty ones are not called.
struct EventStreamListener {
    // `data` may be unaligned and is valid only during the call. Size in bytes.
    std::function<void(const char* data, uint32_t size)> event;
    // The events of one receive have all been handed over.
    std::function<void()> batchEnd;
    std::function<void()> connected;
    // The service has answered every subscription of this connection: what happens from now on is
    // told.
    std::function<void()> subscribed;
    // Nobody listens under the service's name.
    std::function<void()> waiting;
    // The connection is gone, `connected` was called for it.
    std::function<void()> lost;
    std::function<void(int eventType)> refused;
    // The other side sends what is no stream of frames; the connection is given up.
    std::function<void(const std::string& reason)> malformed;
};

class EventStream {
  public:
    EventStream(std::string socketName, std::vector<int> eventTypes, EventStreamListener listener);
    // Stops and waits until no callback runs any more.
    ~EventStream();
    EventStream(const EventStream&) = delete;
    EventStream& operator=(const EventStream&) = delete;

    void start();
    // Asks the stream's thread to end and returns at once. Any thread, any number of times.
    void stop();

  private:
    class Connection;

    bool onConnecting();
    void onConnected(int fd);
    int onReadable(BufferState* readBuffer);
    int onWriteable(BufferState* writeBuffer);
    void onPackage(uint32_t type, char* body, uint32_t length);
    void subscribe(int eventType);
    bool sleepUnlessStopped();

    const std::string socketName;
    const std::vector<int> eventTypes;
    const EventStreamListener listener;

    // Of the current connection; used by the stream's thread alone.
    bool isConnected = false;
    size_t unanswered = 0;  // subscriptions
    std::unique_ptr<IpcPackageManager> requests;
    std::unique_ptr<IpcReqCallBackManager> responses;

    std::mutex stopMutex;
    std::condition_variable stopCondition;
    bool stopRequested = false;

    // Its thread uses everything above; the destructor ends it first.
    std::unique_ptr<Connection> connection;
};

}  // namespace Tesu::Bpf
