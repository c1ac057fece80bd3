// SPDX-License-Identifier: Apache-2.0
//
// Races and failures that no machine shows.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <string>
#include <thread>

#include "ipc/ipc_package.h"
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

}  // namespace
}  // namespace Tesu::Bpf
