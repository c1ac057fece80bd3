// SPDX-License-Identifier: Apache-2.0
//
// Members of the public interface that nothing in the product calls, limits that no machine meets,
// and a race that no machine shows.
#include <gtest/gtest.h>
#include <sys/eventfd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <sstream>
#include <string>
#include <thread>

#include "ipc/ipc_package_handler.h"
#include "ipc/unix_ipc_manager.h"
#include "task/tesu_bpf_task_manager.h"
#include "tests/support/wait_until.h"
#include "tests/support/wire_client.h"
#include "util/time_util.h"

namespace Tesu::Bpf {
namespace {

constexpr auto word = WireClient::word;

TEST(InterfaceTest, MembersThatNobodyCalls) {
    IpcPackageManager queue;
    const TesuReqIpcPackage request{7, "register-event-monitor", 4, "\2\0\0"};
    const TesuRespIpcPackage response{8, -1, 3, "abc"};
    const TesuReqIpcPackage tooLong{.length = 0xfffffff0};
    const std::string event = WireClient::frame(3, "12345678");
    const std::string reply = word(8) + word(UINT_MAX) + word(3);
    EXPECT_TRUE(queue.appendReqIpcPackage(&request) && queue.appendRespIpcPackage(&response));
    EXPECT_TRUE(queue.buildAndAppendIpcPackage(event.data() + 4, 16));
    EXPECT_FALSE(queue.appendReqIpcPackage(&tooLong)) << "the sum wraps in 32 bits";
    EXPECT_EQ(queue.getRefusedPackageCount(), 1U);
    queue.waitEventReady(INT_MAX);
    const std::string all =
        WireClient::subscription(7, 2) + WireClient::frame(1, reply + word(0) + "abc") + event;
    std::string bytes(all.size(), '\0');
    BufferState buffer{0, 0, static_cast<int>(all.size()), bytes.data()};
    while (queue.fillNextIpcPackageToBuffer(&buffer)) {
    }
    EXPECT_EQ(queue.getIpcPackageCount(), 1U) << "one byte stays free";
    EXPECT_TRUE(queue.fillIpcPackageToBuffer(&buffer)) << "or none";
    EXPECT_EQ(bytes, all);

    IpcReqCallBackManager callbacks;
    std::string seen;
    callbacks.addIpcReqCallBack(8, [&](unsigned, int result, char* data, unsigned length) {
        seen.assign(data, length) += std::to_string(result);
        return 0;
    });
    EXPECT_FALSE(callbacks.delIpcReq(7));
    std::string body = reply + "abc";
    auto* const received = reinterpret_cast<TesuRespIpcPackage*>(body.data());
    EXPECT_TRUE(callbacks.handleReqCallBack(received) && !callbacks.handleReqCallBack(received));
    EXPECT_EQ(seen, "abc-1");

    TesuTaskManager& table = *TesuTaskManager::GetInstance();
    TesuTask task;
    EXPECT_EQ(table.AddMmidIndex(3, &task) + table.AddRssTempTask(3, task), 0);
    EXPECT_EQ(table.GetTesuTaskByMmid(3), &task);
    EXPECT_NE(table.GetRssTempTask(3), nullptr);
    EXPECT_EQ(table.DelMmidIndex(3) + table.DelRssTempTask(3) + errno, 0);
    EXPECT_EQ(table.DelMmidIndex(3), -1);
    EXPECT_EQ(table.DelRssTempTask(3), 0) << "a miss shows in errno alone";
    EXPECT_EQ(errno, ENOENT);
}

TEST(InterfaceTest, LimitsOfTimesAndDifferences) {
    std::istringstream late("cpu 1\nbtime 4294967296\n");
    EXPECT_EQ(ParseBootTime(late, 0), 4294967296) << "past 32 bits";
    EXPECT_EQ(NarrowNanoseconds(2, 999999999), 2999999999U - 4294967296ULL);
    EXPECT_EQ(SubAbs(LLONG_MIN, 0), LLONG_MAX);
    EXPECT_EQ(SubAbs(-3, 4), 7);
}

TEST(InterfaceTest, ARequestDuringTheWriteCallbackIsServed) {
    const android::base::unique_fd writable(eventfd(0, EFD_CLOEXEC));
    std::atomic<int> writes{0};
    EpollManager manager(10, 32, {}, "EpollTest", -1);
    EpollCallback callbacks;
    callbacks.writeCallback = [&](epoll_event event) {
        // A producer comes after the callback has looked and before the loop disarms.
        EXPECT_TRUE(++writes != 1 || manager.notifyWriteEventReady(event.data.fd));
        return EPOLL_RESULT_NOTHING_LEFT;
    };
    ASSERT_TRUE(manager.addMonitorFd(writable.get(), callbacks));
    ASSERT_TRUE(manager.notifyWriteEventReady(writable.get()));
    manager.start();
    EXPECT_TRUE(WaitUntil([&] { return writes == 2; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(writes, 2) << "then write readiness is off";
}

TEST(InterfaceTest, WritingNowMeetsConnectionsThatComeAndGo) {
    const std::string name = "/tesubpf-test/" + std::to_string(getpid());
    const std::string text(100, 'x');
    std::atomic<int> lastClient{-1};
    std::atomic<unsigned> writes{0};
    IpcHandlerState handlers;
    handlers.connection = [&](int fd) { lastClient = fd; };
    handlers.writeable = [&](int, BufferState* out) {
        const std::string bytes = ++writes % 2 == 0 ? WireClient::frame(3, text) : "";
        out->length = static_cast<int>(bytes.copy(out->data, bytes.size()));
        return 0;
    };
    UnixIpcManager server(true, IPC_BUFFER_SIZE, name, handlers, "IpcTest", 10, 32);
    server.start();
    const std::jthread writer([&](const std::stop_token& done) {
        while (!done.stop_requested()) {
            server.writeDataNow(lastClient);
        }
    });
    WireClient client;
    for (int i = 0; i < 200; ++i) {
        ASSERT_TRUE(client.connectTo(name));
        EXPECT_EQ(client.next().value_or(WireClient::Package()).body, text);
    }
}

}  // namespace
}  // namespace Tesu::Bpf
