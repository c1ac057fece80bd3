// SPDX-License-Identifier: Apache-2.0
//
// The service's side of the socket for tests of clients: a real server on a name of the test's
// choosing that notes subscriptions and sends what it is told, to every client.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "ipc/ipc_package.h"
#include "ipc/unix_ipc_manager.h"

class TestService {
  public:
    explicit TestService(const std::string& socketName);
    // Closes every connection.
    ~TestService();

    // An abstract socket name that no other test of this machine uses.
    static std::string uniqueSocketName();

    // From now on subscriptions to this type are answered with -1.
    void refuse(int eventType);
    // Whether, within a time limit, `count` subscriptions have been accepted.
    bool waitForSubscriptions(size_t count);
    std::vector<int> subscriptions();

    // Queues an event package for every client.
    void sendEvent(const std::string& event);
    // Sends these bytes as they are, behind what is queued.
    void sendBytes(const std::string& bytes);

  private:
    struct Client {
        IpcPackageManager events;
        std::string bytes;
    };

    int onReadable(BufferState* readBuffer, BufferState* writeBuffer);
    int onWriteable(int fd, BufferState* writeBuffer);
    void toEveryClient(const std::function<void(Client&)>& action);

    std::mutex mutex;
    std::condition_variable changed;
    std::map<int, Client> clients;
    std::vector<int> accepted;
    std::vector<int> refusedTypes;
    std::unique_ptr<UnixIpcManager> server;
};
