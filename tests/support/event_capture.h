// SPDX-License-Identifier: Apache-2.0
//
// A subscribed client without a socket: what the fan-out queues for it. Made after the service, in
// whose place it gives the fan-out its queues.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

#include "events/event_manager.h"
#include "tests/support/wire_client.h"

class EventCapture {
  public:
    explicit EventCapture(std::initializer_list<int> eventTypes) {
        manager->setClientQueues(&queues, [](int /*fd*/) { return true; });
        manager->addClient(CLIENT);
        for (const int type : eventTypes) {
            manager->AddObserverEvent(CLIENT, type);
        }
    }
    ~EventCapture() {
        manager->EraseObserver(CLIENT);
        manager->setClientQueues(nullptr);
    }
    EventCapture(const EventCapture&) = delete;
    EventCapture& operator=(const EventCapture&) = delete;

    // The events queued since the last call.
    std::vector<std::string> take() {
        std::vector<std::string> events;
        std::vector<char> storage(IPC_BUFFER_SIZE);
        while (true) {
            BufferState buffer{.capacity = IPC_BUFFER_SIZE, .data = storage.data()};
            manager->fillWriteBuffer(CLIENT, &buffer);
            if (buffer.length == 0) {
                return events;
            }
            const std::string bytes(buffer.data, static_cast<size_t>(buffer.length));
            for (size_t at = 0; at < bytes.size();) {
                const uint32_t length = WireClient::wordAt(bytes, at + 8);
                events.push_back(bytes.substr(at + 12, length));
                at += 12 + length;
            }
        }
    }

  private:
    static constexpr int CLIENT = 101;
    Tesu::Bpf::EventManager* manager = Tesu::Bpf::EventManager::GetInstance();
    Tesu::Bpf::EventManager::ClientQueues queues;
};
