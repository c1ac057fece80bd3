// SPDX-License-Identifier: Apache-2.0
#include "ipc/epoll_manager.h"

#include <android-base/unique_fd.h>
#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <string>

#include "tests/support/wait_until.h"

namespace {

using android::base::unique_fd;

class EpollManagerTest : public testing::Test {
  protected:
    EpollManagerTest() {
        EXPECT_TRUE(
            android::base::Socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, &watched, &other));
    }
    ~EpollManagerTest() override {
        // Callbacks use the fixture's members.
        manager.stop();
        manager.join();
    }

    std::function<int(epoll_event)> count(std::atomic<int>& calls, int result) {
        return [&calls, result](epoll_event) {
            ++calls;
            return result;
        };
    }
    std::function<int(epoll_event)> drain(std::atomic<int>& calls, int result) {
        return [this, &calls, result](epoll_event) {
            char bytes[64];
            EXPECT_GT(read(watched.get(), bytes, sizeof(bytes)), 0);
            ++calls;
            return result;
        };
    }
    void sendByte() { ASSERT_EQ(write(other.get(), "x", 1), 1); }
    // Has the loop handle one more event after whatever it is doing.
    void passThroughLoop() {
        unique_fd probe(eventfd(1, EFD_CLOEXEC));
        std::atomic<int> seen{0};
        EpollCallback callbacks;
        callbacks.readCallback = [&](epoll_event) {
            manager.delMonitorFd(probe.get());
            ++seen;
            return EPOLL_RESULT_CONSUMED;
        };
        ASSERT_TRUE(manager.addMonitorFd(probe.get(), callbacks));
        ASSERT_TRUE(WaitUntil([&] { return seen > 0; }));
    }

    std::atomic<int> reads{0};
    std::atomic<int> writes{0};
    std::atomic<int> closes{0};
    unique_fd watched;
    unique_fd other;
    EpollManager manager{10, 32, {}, "EpollTest", -1};
};

TEST_F(EpollManagerTest, HangUpRunsOnlyTheCloseCallback) {
    EpollCallback callbacks;
    callbacks.readCallback = count(reads, EPOLL_RESULT_CONSUMED);
    callbacks.closeCallback = [&](epoll_event event) {
        ++closes;
        manager.delMonitorFd(event.data.fd);  // removes the callback that is running
        return EPOLL_RESULT_OK;
    };
    ASSERT_TRUE(manager.addMonitorFd(watched.get(), callbacks));
    sendByte();
    other.reset();
    manager.start();
    ASSERT_TRUE(WaitUntil([&] { return closes > 0; }));
    passThroughLoop();
    EXPECT_EQ(closes, 1);
    EXPECT_EQ(reads, 0) << "input that came with the hang-up";
}

TEST_F(EpollManagerTest, CloseOnlyDescriptorIsNotWokenByInput) {
    EpollCallback callbacks;
    callbacks.closeCallback = [&](epoll_event event) {
        ++closes;
        manager.delMonitorFd(event.data.fd);
        return EPOLL_RESULT_OK;
    };
    ASSERT_TRUE(manager.addMonitorFd(watched.get(), callbacks));
    manager.start();
    sendByte();
    passThroughLoop();
    EXPECT_EQ(closes, 0);
    other.reset();
    EXPECT_TRUE(WaitUntil([&] { return closes == 1; }));
}

TEST_F(EpollManagerTest, ReadResultDecidesWhetherTheWriteCallbackRunsToo) {
    for (const int result : {EPOLL_RESULT_OK, EPOLL_RESULT_CONSUMED, EPOLL_RESULT_ERROR}) {
        EpollManager local(10, 32, {}, "EpollTest", -1);
        std::atomic<int> wrote{0};
        std::atomic<int> read{0};
        EpollCallback callbacks;
        callbacks.readCallback = [&](epoll_event event) {
            char byte = 0;
            EXPECT_EQ(::read(event.data.fd, &byte, 1), 1);
            ++read;
            return result;
        };
        callbacks.writeCallback = [&](epoll_event event) {
            // Input and output are ready in one event only before the read.
            wrote += (event.events & EPOLLIN) != 0 ? 1 : 0;
            return static_cast<int>(EPOLL_RESULT_NOTHING_LEFT);
        };
        ASSERT_TRUE(local.addMonitorFd(watched.get(), callbacks));
        ASSERT_TRUE(local.notifyWriteEventReady(watched.get()));
        sendByte();
        local.start();
        ASSERT_TRUE(WaitUntil([&] { return read > 0; }));
        local.stop();
        local.join();
        EXPECT_EQ(wrote, result == EPOLL_RESULT_OK ? 1 : 0) << result;
    }
}

TEST_F(EpollManagerTest, RequestDuringTheWriteCallbackIsNotLost) {
    EpollCallback callbacks;
    callbacks.writeCallback = [&](epoll_event event) {
        // The producer comes after the callback has looked and before the loop disarms.
        if (++writes == 1) {
            EXPECT_TRUE(manager.notifyWriteEventReady(event.data.fd));
        }
        return EPOLL_RESULT_NOTHING_LEFT;
    };
    ASSERT_TRUE(manager.addMonitorFd(watched.get(), callbacks));
    manager.start();
    ASSERT_TRUE(manager.notifyWriteEventReady(watched.get()));
    EXPECT_TRUE(WaitUntil([&] { return writes >= 2; }));
    passThroughLoop();
    passThroughLoop();
    EXPECT_EQ(writes, 2) << "then write readiness is off";
}

TEST_F(EpollManagerTest, UnknownDescriptorsAndMissingCallbacks) {
    EXPECT_FALSE(manager.notifyWriteEventReady(watched.get()));
    EXPECT_FALSE(manager.markWriteEventFinish(watched.get()));
    EXPECT_FALSE(manager.writeEventNow(watched.get()));
    EXPECT_FALSE(manager.delMonitorFd(watched.get()));
    EXPECT_FALSE(manager.addMonitorFd(-1, {}));

    EpollCallback callbacks;
    callbacks.readCallback = drain(reads, EPOLL_RESULT_OK);
    ASSERT_TRUE(manager.addMonitorFd(watched.get(), callbacks));
    EXPECT_FALSE(manager.addMonitorFd(watched.get(), {})) << "already there";
    EXPECT_TRUE(manager.notifyWriteEventReady(watched.get()));
    EXPECT_FALSE(manager.writeEventNow(watched.get()));
    manager.start();
    sendByte();
    EXPECT_TRUE(WaitUntil([&] { return reads == 1; })) << "a failed second add changed nothing";
}

TEST_F(EpollManagerTest, WriteEventNowRunsUntilTheCallbackIsDone) {
    int left = 3;
    EpollCallback callbacks;
    callbacks.writeCallback = [&](epoll_event event) {
        EXPECT_EQ(event.events, 0U);
        return left-- > 0 ? EPOLL_RESULT_OK : EPOLL_RESULT_NOTHING_LEFT;
    };
    ASSERT_TRUE(manager.addMonitorFd(watched.get(), callbacks));
    EXPECT_TRUE(manager.writeEventNow(watched.get()));
    EXPECT_EQ(left, -1);
}

TEST_F(EpollManagerTest, StopEndsTheLoopBeforePendingEvents) {
    EpollCallback callbacks;
    callbacks.readCallback = count(reads, EPOLL_RESULT_OK);
    ASSERT_TRUE(manager.addMonitorFd(watched.get(), callbacks));
    manager.stop();
    sendByte();
    manager.start();  // finds the control counter at its first wait
    manager.join();
    manager.join();
    EXPECT_EQ(reads, 0);
}

TEST_F(EpollManagerTest, StopWakesAThreadThatWaitsForIt) {
    std::atomic<bool> stopped{false};
    EpollManager waiting(
        10, 32, [&] { return stopped = waiting.waitForStop(600000); }, "EpollTest", -1);
    EXPECT_FALSE(waiting.waitForStop(1));
    waiting.start();
    waiting.stop();
    waiting.join();
    EXPECT_TRUE(stopped);
}

TEST_F(EpollManagerTest, LoopThatCannotWaitStillEnds) {
    EpollManager broken(10, 0, {}, "EpollTest", -1);
    broken.start();
    broken.stop();
    broken.join();
}

TEST_F(EpollManagerTest, EmptyAffinityMeansTheFirstCpu) {
    cpu_set_t none;
    CPU_ZERO(&none);
    std::atomic<bool> firstCpuOnly{false};
    EpollManager pinned(
        10, 32,
        [&] {
            cpu_set_t actual;
            sched_getaffinity(gettid(), sizeof(actual), &actual);
            return firstCpuOnly = CPU_COUNT(&actual) == 1 && CPU_ISSET(0, &actual);
        },
        nullptr, none, -1);
    pinned.stop();
    pinned.start();
    pinned.join();
    EXPECT_TRUE(firstCpuOnly);
}

}  // namespace
