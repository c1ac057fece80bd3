// SPDX-License-Identifier: Apache-2.0
//
// The stream of events against a real server on a real socket.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "client/event_stream.h"
#include "tests/support/test_service.h"
#include "tests/support/wait_until.h"

namespace Tesu::Bpf {
namespace {

using testing::ElementsAre;

// Notes everything a listener is told.
class Recorder {
  public:
    EventStreamListener listener() {
        EventStreamListener listener;
        listener.event = [this](const char* data, uint32_t size) {
            note([&] { events.emplace_back(data, size); });
        };
        listener.batchEnd = [this] { note([&] { flushed = events.size(); }); };
        listener.connected = [this] { note([&] { ++connected; }); };
        listener.lost = [this] { note([&] { ++lost; }); };
        listener.waiting = [this] { note([&] { ++waiting; }); };
        listener.refused = [this](int type) { note([&] { refused.push_back(type); }); };
        listener.malformed = [this](const std::string& why) { note([&] { malformed = why; }); };
        return listener;
    }

    template <class Condition>
    bool waitUntil(Condition condition) {
        std::unique_lock lock(mutex);
        return changed.wait_for(lock, TEST_PATIENCE, condition);
    }

    std::vector<std::string> events;
    size_t flushed = 0;
    int connected = 0;
    int lost = 0;
    int waiting = 0;
    std::vector<int> refused;
    std::string malformed;

  private:
    template <class Change>
    void note(Change change) {
        {
            const std::lock_guard lock(mutex);
            change();
        }
        changed.notify_all();
    }

    std::mutex mutex;
    std::condition_variable changed;
};

TEST(EventStream, SubscribesAndDeliversEveryEventInOrder) {
    const std::string name = TestService::uniqueSocketName();
    TestService service(name);
    Recorder recorder;
    EventStream stream(name, {2, 3, 50001}, recorder.listener());
    stream.start();
    ASSERT_TRUE(service.waitForSubscriptions(3));
    EXPECT_THAT(service.subscriptions(), ElementsAre(2, 3, 50001));

    // Odd sizes leave most events unaligned, the large ones fill the buffers to the last byte.
    std::vector<std::string> sent;
    for (size_t i = 0; i < 3000; ++i) {
        std::string event(i % 2 == 0 ? 4 + i % 97 : 1 + i * 7919 % 32000, static_cast<char>(i));
        if (i == 1000) {
            event.resize(IPC_MAX_PACKAGE_SIZE - IPC_PACKAGE_HEADER_SIZE, 'x');
        }
        service.sendEvent(event);
        sent.push_back(std::move(event));
    }
    ASSERT_TRUE(recorder.waitUntil([&] { return recorder.flushed >= sent.size(); }));
    stream.stop();
    EXPECT_TRUE(recorder.events == sent);
    EXPECT_EQ(recorder.connected, 1);
    EXPECT_EQ(recorder.lost, 0);
    EXPECT_EQ(recorder.waiting, 0);
}

TEST(EventStream, SubscribesAgainWhenTheServiceIsBack) {
    const std::string name = TestService::uniqueSocketName();
    auto service = std::make_unique<TestService>(name);
    Recorder recorder;
    EventStream stream(name, {2}, recorder.listener());
    stream.start();
    ASSERT_TRUE(service->waitForSubscriptions(1));
    service.reset();
    ASSERT_TRUE(recorder.waitUntil([&] { return recorder.waiting == 1; }));
    EXPECT_EQ(recorder.lost, 1);

    service = std::make_unique<TestService>(name);
    ASSERT_TRUE(service->waitForSubscriptions(1));
    service->sendEvent("after the restart");
    ASSERT_TRUE(recorder.waitUntil([&] { return recorder.flushed == 1; }));
    stream.stop();
    EXPECT_EQ(recorder.connected, 2);
    EXPECT_THAT(recorder.events, ElementsAre("after the restart"));
}

TEST(EventStream, ReportsARefusedTypeAndGoesOnWithTheOthers) {
    const std::string name = TestService::uniqueSocketName();
    TestService service(name);
    service.refuse(3);
    Recorder recorder;
    EventStream stream(name, {3, 2}, recorder.listener());
    stream.start();
    ASSERT_TRUE(service.waitForSubscriptions(1));
    service.sendEvent("event");
    ASSERT_TRUE(recorder.waitUntil([&] { return recorder.flushed == 1; }));
    stream.stop();
    EXPECT_THAT(recorder.refused, ElementsAre(3));
}

TEST(EventStream, GivesUpAConnectionThatIsOutOfStep) {
    const std::string name = TestService::uniqueSocketName();
    TestService service(name);
    Recorder recorder;
    EventStream stream(name, {2}, recorder.listener());
    stream.start();
    ASSERT_TRUE(service.waitForSubscriptions(1));
    service.sendEvent("good");
    service.sendBytes(std::string(8, '\xff'));
    ASSERT_TRUE(recorder.waitUntil([&] { return recorder.connected == 2; }));
    EXPECT_FALSE(recorder.malformed.empty());
    EXPECT_EQ(recorder.lost, 1);
    ASSERT_TRUE(service.waitForSubscriptions(2));
    service.sendEvent("in step again");
    ASSERT_TRUE(recorder.waitUntil([&] { return recorder.flushed == 2; }));
    EXPECT_THAT(recorder.events, ElementsAre("good", "in step again"));
}

TEST(EventStream, StopsWhileNobodyListens) {
    Recorder recorder;
    EventStream stream(TestService::uniqueSocketName(), {2}, recorder.listener());
    stream.start();
    ASSERT_TRUE(recorder.waitUntil([&] { return recorder.waiting == 1; }));
    stream.stop();
    EXPECT_EQ(recorder.connected, 0);
}

}  // namespace
}  // namespace Tesu::Bpf
