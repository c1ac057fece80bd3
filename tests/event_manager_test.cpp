// SPDX-License-Identifier: Apache-2.0
//
// Subscriptions, requests and the fan-out, without a socket.
#include "events/event_manager.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "records/raw_event.h"
#include "service/tesu_bpf_service.h"
#include "tests/support/wire_client.h"

namespace Tesu::Bpf {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr int ALICE = 101;
constexpr int BOB = 102;

// A record of `type` with a text behind its type word.
std::string Record(int type, const std::string& text) {
    return WireClient::word(static_cast<uint32_t>(type)) + text;
}

// A write buffer of the service's size.
struct WriteBuffer {
    explicit WriteBuffer(int capacity = IPC_BUFFER_SIZE) : storage(static_cast<size_t>(capacity)) {
        state.capacity = capacity;
        state.data = storage.data();
    }
    std::string bytes() const { return {state.data, static_cast<size_t>(state.length)}; }
    std::vector<char> storage;
    BufferState state;
};

class EventManagerTest : public testing::Test {
  protected:
    EventManagerTest() {
        manager->setClientQueues(&queues, [this](int fd) {
            requested.push_back(fd);
            return gone.count(fd) == 0;
        });
        manager->addClient(ALICE);
        manager->addClient(BOB);
    }
    ~EventManagerTest() override { manager->setClientQueues(nullptr); }

    void append(const std::string& record) {
        EXPECT_EQ(manager->AppendEvent(record.data(), static_cast<unsigned>(record.size())), 0);
    }
    std::string queued(int fd) {
        WriteBuffer buffer;
        manager->fillWriteBuffer(fd, &buffer.state);
        return buffer.bytes();
    }
    static std::string framed(const std::string& record) { return WireClient::frame(3, record); }

    EventManager* manager = EventManager::GetInstance();
    EventManager::ClientQueues queues;
    std::vector<int> requested;
    std::set<int> gone;
};

TEST_F(EventManagerTest, EachSubscriberOfATypeGetsEachRecordOnceInOrder) {
    manager->AddObserverEvent(ALICE, 2);
    manager->AddObserverEvent(ALICE, 2);
    manager->AddObserverEvent(ALICE, 3);
    manager->AddObserverEvent(BOB, 3);
    append(Record(2, "fork"));
    append(Record(3, "exit"));
    append(Record(4, "nobody"));
    EXPECT_THAT(requested, ElementsAre(ALICE, ALICE, BOB));
    EXPECT_EQ(queued(ALICE), framed(Record(2, "fork")) + framed(Record(3, "exit")));
    EXPECT_EQ(queued(BOB), framed(Record(3, "exit")));
}

TEST_F(EventManagerTest, UnsubscribedAndClosedClientsGetNothing) {
    manager->AddObserverEvent(ALICE, 2);
    manager->AddObserverEvent(BOB, 2);
    manager->DelObserverEvent(ALICE, 2);
    manager->DelObserverEvent(ALICE, 99);
    append(Record(2, "a"));
    manager->removeClient(BOB);
    append(Record(2, "b"));
    EXPECT_THAT(requested, ElementsAre(BOB));
    EXPECT_EQ(queued(ALICE), "");
    EXPECT_EQ(queues.count(BOB), 0U);
}

TEST_F(EventManagerTest, ReusedDescriptorInheritsNothing) {
    manager->AddObserverEvent(ALICE, 2);
    append(Record(2, "for the former client"));
    EXPECT_FALSE(manager->addClient(ALICE)) << "the former one was dropped without a word";
    append(Record(2, "still"));
    EXPECT_EQ(queued(ALICE), "");
}

TEST_F(EventManagerTest, ConnectionFoundGoneIsForgotten) {
    manager->AddObserverEvent(ALICE, 2);
    manager->AddObserverEvent(BOB, 2);
    gone.insert(ALICE);
    append(Record(2, "first"));
    append(Record(2, "second"));
    EXPECT_THAT(requested, ElementsAre(ALICE, BOB, BOB));
    EXPECT_EQ(queues.count(ALICE), 0U);
}

TEST_F(EventManagerTest, SubscriptionWithoutQueueAndRecordWithoutTypeAreSkipped) {
    manager->AddObserverEvent(7, 0);
    append("");
    append(std::string(3, '\0'));
    EXPECT_THAT(requested, IsEmpty());
    append(Record(0, ""));
    EXPECT_THAT(requested, ElementsAre(7));
}

TEST_F(EventManagerTest, FanOutMeetsClientsThatComeAndGo) {
    std::atomic<bool> done{false};
    std::thread producer([&] {
        const std::string record = Record(2, "event");
        while (!done) {
            manager->AppendEvent(record.data(), static_cast<unsigned>(record.size()));
        }
    });
    for (int i = 0; i < 2000; ++i) {
        manager->addClient(BOB);
        manager->AddObserverEvent(BOB, 2);
        queued(BOB);
        manager->removeClient(BOB);
    }
    done = true;
    producer.join();
    EXPECT_EQ(queues.count(BOB), 0U);
}

class SubscriptionRequestTest : public testing::Test {
  protected:
    SubscriptionRequestTest() { service->onClientLibConnection(ALICE); }
    ~SubscriptionRequestTest() override { service->onClientLibClose(ALICE); }

    // Has the service read these bytes; what it answers.
    std::string answer(std::string bytes, int capacity = IPC_BUFFER_SIZE) {
        BufferState input{.length = static_cast<int>(bytes.size()),
                          .capacity = static_cast<int>(bytes.size()),
                          .data = bytes.data()};
        WriteBuffer output(capacity);
        EXPECT_EQ(service->onClientLibReadable(ALICE, &input, &output.state), 0);
        unread = input.length - input.cursor;
        return output.bytes();
    }
    static std::string reply(uint32_t id, int32_t result) {
        return WireClient::frame(1, WireClient::word(id) +
                                        WireClient::word(static_cast<uint32_t>(result)) +
                                        WireClient::word(0));
    }
    TesuBpfService* service = TesuBpfService::GetInstance();
    int unread = 0;
};

TEST_F(SubscriptionRequestTest, CommandsMustMatchToTheirNul) {
    EXPECT_EQ(answer(WireClient::subscription(7, 2)), reply(7, 0));
    const std::string data = WireClient::word(2);
    for (const char* command :
         {"register-event-monitorX", "register-event-monito", "", "unregister-event-monitors"}) {
        EXPECT_EQ(answer(WireClient::request(8, command, data)), reply(8, -1)) << command;
    }
    EXPECT_EQ(answer(WireClient::request(9, std::string(32, 'r'), data)), reply(9, -1))
        << "no NUL in the text";
    EXPECT_EQ(answer(WireClient::request(10, "unregister-event-monitor", data)), reply(10, 0));
}

TEST_F(SubscriptionRequestTest, RequestWithoutAnEventTypeIsRefused) {
    EXPECT_EQ(answer(WireClient::request(3, "register-event-monitor", "")), reply(3, -1));
    EXPECT_EQ(answer(WireClient::frame(0, "")), reply(0, -1));
}

TEST_F(SubscriptionRequestTest, PipelinedRequestsAndATailInOneRead) {
    const std::string half = WireClient::subscription(3, 5).substr(0, 30);
    EXPECT_EQ(answer(WireClient::subscription(1, 2) + WireClient::frame(0, "") +
                     WireClient::subscription(2, 3) + half),
              reply(1, 0) + reply(0, -1) + reply(2, 0));
    EXPECT_EQ(unread, 30);
}

TEST_F(SubscriptionRequestTest, ReplyIsLostButNotTheSubscriptionWhenTheBufferIsFull) {
    EXPECT_EQ(answer(WireClient::subscription(1, 2), 25), reply(1, 0)) << "just room enough";
    EXPECT_EQ(answer(WireClient::subscription(1, 3), 24), "");

    EventManager::ClientQueues queues;
    std::vector<int> asked;
    EventManager::GetInstance()->setClientQueues(&queues, [&](int fd) {
        asked.push_back(fd);
        return true;
    });
    const std::string record = Record(3, "");
    EventManager::GetInstance()->AppendEvent(record.data(), static_cast<unsigned>(record.size()));
    EXPECT_THAT(asked, ElementsAre(ALICE)) << "subscribed all the same";
    EventManager::GetInstance()->setClientQueues(nullptr);
}

}  // namespace
}  // namespace Tesu::Bpf
