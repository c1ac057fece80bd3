// SPDX-License-Identifier: Apache-2.0
//
// Races and failures of the service's socket that no machine shows; and how each side cuts a stream
// of bytes into packages: the service its requests, a client its replies and events. A stream comes
// in pieces of any size, and may be anything.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "ipc/frame.h"
#include "ipc/ipc_package.h"
#include "ipc/ipc_package_handler.h"
#include "ipc/unix_ipc_manager.h"
#include "ipc/unix_socket.h"
#include "tests/support/wait_until.h"
#include "tests/support/wire_client.h"

namespace {

// A system call that fails with `error`, unless that is 0, and how often it has.
struct FailingCall {
    std::atomic<int> error{0};
    std::atomic<int> count{0};

    template <class... Arguments>
    int make(long number, Arguments... arguments) {
        if ((errno = error) != 0) {
            ++count;
            return -1;
        }
        return static_cast<int>(syscall(number, arguments...));
    }
} accepting, timing, watching;

}  // namespace

extern "C" int accept4(int fd, sockaddr* address, socklen_t* length, int flags) {
    return accepting.make(SYS_accept4, fd, address, length, flags);
}
extern "C" int timerfd_create(int clock, int flags) noexcept {
    return timing.make(SYS_timerfd_create, clock, flags);
}
extern "C" int epoll_ctl(int epollFd, int operation, int fd, epoll_event* event) noexcept {
    static FailingCall others;
    return (operation == EPOLL_CTL_ADD ? watching : others)
        .make(SYS_epoll_ctl, epollFd, operation, fd, event);
}

namespace Tesu::Bpf {
namespace {

TEST(InterfaceTest, ARequestDuringTheWriteCallbackIsServed) {
    const android::base::unique_fd writable(eventfd(0, EFD_CLOEXEC));
    std::atomic<int> writes{0};
    EpollManager manager(10, 32, {}, "EpollTest", -1);
    EpollCallback callbacks;
    callbacks.writeCallback = [&](epoll_event event) {
        // Producers come after the callback has looked and before the loop disarms.
        const int fd = event.data.fd;
        EXPECT_TRUE(++writes > 2 ||
                    (writes == 1 ? manager.notifyWriteEventReady(fd) : manager.joinWriteEvent(fd)));
        return EPOLL_RESULT_NOTHING_LEFT;
    };
    ASSERT_TRUE(manager.addMonitorFd(writable.get(), callbacks));
    ASSERT_TRUE(manager.notifyWriteEventReady(writable.get()));
    manager.start();
    EXPECT_TRUE(WaitUntil([&] { return writes == 3; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(writes, 3) << "then write readiness is off";
}

TEST(InterfaceTest, WhatComesDuringTheLoopsLastLookIsSentToo) {
    std::atomic<int> looks{0};
    UnixIpcManager* manager = nullptr;
    IpcHandlerState handlers;
    handlers.connection = [&](int fd) { manager->notifyNeedWriteData(fd); };
    handlers.writeable = [&](int fd, BufferState* /*buffer*/) {
        if (++looks == 1) {
            const auto send = [&] { EXPECT_EQ(manager->writeWhatFits(fd), IpcWriteResult::DONE); };
            std::thread(send).join();
        }
        return 0;
    };
    const std::string name = "/tesubpf-test/look/" + std::to_string(getpid());
    UnixIpcManager server(true, IPC_BUFFER_SIZE, name, handlers, 10, 32);
    manager = &server;
    server.start();
    WireClient client;
    ASSERT_TRUE(client.connectTo(name));
    EXPECT_TRUE(WaitUntil([&] { return looks == 2; }));
}

TEST(InterfaceTest, AServerTriesAgainWhateverFailsAndDoesNotSpin) {
    const std::string name = "/tesubpf-test/" + std::to_string(getpid());
    std::atomic<int> connections{0};
    IpcHandlerState handlers;
    handlers.connection = [&](int) { ++connections; };
    android::base::unique_fd holder(CreateNonblockingServerSocket(name.c_str()));
    UnixIpcManager server(true, IPC_BUFFER_SIZE, name, handlers, "IpcTest", 10, 32);
    timing.error = EMFILE;
    server.start();
    EXPECT_TRUE(WaitUntil([] { return timing.count > 1; }));
    holder.reset();
    WireClient clients[2];
    ASSERT_TRUE(clients[0].connectTo(name)) << "a taken name, and no timer to wait with";
    EXPECT_TRUE(WaitUntil([&] { return connections == 1; }));
    timing.error = 0;
    accepting.error = EPERM;
    ASSERT_TRUE(clients[1].connectTo(name));
    EXPECT_TRUE(WaitUntil([] { return accepting.count > 1; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_LT(accepting.count, 100) << "a busy machine makes it fewer calls yet";
    watching.error = ENOSPC;
    EXPECT_TRUE(WaitUntil([] { return watching.count > 1; }));
    accepting.error = 0;
    watching.error = 0;
    EXPECT_TRUE(WaitUntil([&] { return connections == 2; }));
}

TEST(InterfaceTest, AHangUpThatComesAfterStopClosesNothing) {
    UnixIpcManager server(true, IPC_BUFFER_SIZE, "/tesubpf-test/hang-up", {}, 10, 32);
    const int timer = fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0);
    close(timer);
    server.createServer();  // its timer, then its socket
    server.stop();
    const android::base::unique_fd heir(fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, timer + 1));
    ASSERT_EQ(heir.get(), timer + 1);
    epoll_event hangUp{};
    hangUp.data.fd = heir.get();
    server.onServerCloseCallback(hangUp);
    EXPECT_NE(fcntl(heir.get(), F_GETFD), -1);
}

constexpr int CAPACITY = 512;

struct Outcome {
    std::vector<std::string> packages;  // as frames
    bool isOutOfStep = false;           // the reader has given up
    size_t consumed = 0;
    bool operator==(const Outcome&) const = default;
};

// Reads what is there; false when it gives up.
using Reader = bool (*)(std::vector<char>&, Outcome*);

bool ReadAsService(std::vector<char>& block, Outcome* outcome) {
    BufferState buffer{0, static_cast<int>(block.size()), CAPACITY, block.data()};
    const auto take = [&](int, const char* body, int length, BufferState*) {
        outcome->packages.push_back(WireClient::frame(0, {body, static_cast<size_t>(length)}));
        return 0;
    };
    const bool isInStep =
        IpcPackageHandler({{0, take}}).handleAllIpcPackageInBuffer(0, &buffer, nullptr);
    outcome->consumed += static_cast<size_t>(buffer.cursor);
    return isInStep;
}

bool ReadAsClient(std::vector<char>& block, Outcome* outcome) {
    FrameBuffer buffer{0, block.size(), CAPACITY, block.data()};
    Package package;
    char fault[FRAME_FAULT_SIZE];
    auto state = TakePackage(&buffer, &package, fault);
    for (; state == FRAME_TAKEN; state = TakePackage(&buffer, &package, fault)) {
        outcome->packages.push_back(
            WireClient::frame(package.type, {package.body, package.length}));
    }
    outcome->consumed += buffer.cursor;
    return state == FRAME_INCOMPLETE;
}

// Whatever is received lies in a block of exactly its size, so that a read past it is found.
Outcome Receive(Reader reader, const std::string& stream, const std::function<size_t()>& nextSize) {
    Outcome outcome;
    for (size_t end = 0; end < stream.size() && !outcome.isOutOfStep;) {
        end = std::min(stream.size(), end + nextSize());
        const auto from = stream.begin() + static_cast<ptrdiff_t>(outcome.consumed);
        std::vector<char> block(from, stream.begin() + static_cast<ptrdiff_t>(end));
        outcome.isOutOfStep = !reader(block, &outcome);
    }
    return outcome;
}

class FramesTest : public testing::TestWithParam<Reader> {};
INSTANTIATE_TEST_SUITE_P(BothSides, FramesTest, testing::Values(ReadAsService, ReadAsClient));

TEST_P(FramesTest, AnyPieceOfAnyStreamIsReadAlike) {
    std::mt19937_64 random(1);
    const auto pick = [&](size_t count) { return static_cast<size_t>(random() % count); };
    for (int i = 0; i < 20000; ++i) {
        const bool isHostile = i % 4 != 0;
        std::vector<std::string> frames;
        std::string stream;
        for (size_t left = pick(6); left > 0; --left) {
            const uint32_t type = isHostile ? random() % 3 * 0x7fffffff : 0;
            frames.push_back(WireClient::frame(type, std::string(pick(60), 'x')));
            stream += frames.back();
            if (isHostile && pick(3) == 0) {
                const auto size = static_cast<uint32_t>(frames.back().size());
                const uint32_t words[] = {0, 7, 8, size - 13, size - 3, CAPACITY, 0xfffffff8};
                stream.replace(stream.size() - size + pick(2) * 8, 4,
                               WireClient::word(words[pick(std::size(words))]));
            }
        }
        stream.resize(stream.size() - (isHostile ? std::min(stream.size(), pick(20)) : 0));
        const Outcome whole = Receive(GetParam(), stream, [&] { return stream.size(); });
        ASSERT_EQ(Receive(GetParam(), stream, [&] { return 1 + pick(40); }), whole) << i;
        ASSERT_TRUE(isHostile || whole == (Outcome{frames, false, stream.size()})) << i;
    }
}

TEST(ClientFramesTest, GivesUpFramesThatCannotBe) {
    const auto word = WireClient::word;
    const std::string good = WireClient::frame(3, "good");
    for (const std::string& bad :
         {word(7) + word(3), word(0xffffffff) + word(3), word(CAPACITY - 3),
          word(16) + word(3) + word(9) + "12345678", word(16) + word(3) + word(7) + "12345678"}) {
        const Outcome outcome = Receive(ReadAsClient, good + bad, [] { return CAPACITY; });
        EXPECT_EQ(outcome, (Outcome{{good}, true, good.size()})) << testing::PrintToString(bad);
    }
    const std::string largest = WireClient::frame(3, std::string(CAPACITY - 12, 'x'));
    EXPECT_EQ(Receive(ReadAsClient, largest, [] { return 1; }),
              (Outcome{{largest}, false, CAPACITY}));
}

}  // namespace
}  // namespace Tesu::Bpf
