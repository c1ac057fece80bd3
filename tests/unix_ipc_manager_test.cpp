// SPDX-License-Identifier: Apache-2.0
#include "ipc/unix_ipc_manager.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "ipc/ipc_package.h"
#include "tests/support/wait_until.h"
#include "tests/support/wire_client.h"

namespace {

constexpr int BUFFER_SIZE = 32768;

std::string UniqueName() {
    static std::atomic<int> number{0};
    return "/tesubpf-test/" + std::to_string(getpid()) + "." + std::to_string(++number);
}

// A server that echoes whole lines and sends what is queued for its clients.
class TestServer {
  public:
    explicit TestServer(std::string name, bool closeOnError = true) {
        IpcHandlerState handlers;
        handlers.saveUnuseBuffer = true;
        handlers.closeOnError = closeOnError;
        handlers.readable = [this](int, BufferState* in, BufferState* out) {
            const int result = echoLines(in, out);
            refusals += result == -1 ? 1 : 0;
            return result;
        };
        handlers.writeable = [this](int, BufferState* out) {
            while (queue.fillNextIpcPackageToBuffer(out)) {
            }
            return 0;
        };
        handlers.connection = [this](int fd) {
            lastClient = fd;
            ++connections;
        };
        handlers.close = [this](int) { ++closes; };
        manager = std::make_unique<UnixIpcManager>(true, BUFFER_SIZE, std::move(name), handlers,
                                                   "IpcTest", 10, 32);
    }
    ~TestServer() { manager.reset(); }

    void queueEvent(const std::string& body) {
        queue.buildAndAppendSecondIpcPackage(3, body.data(), static_cast<unsigned>(body.size()));
    }

    std::atomic<int> connections{0};
    std::atomic<int> closes{0};
    std::atomic<int> refusals{0};
    std::atomic<int> lastClient{-1};
    IpcPackageManager queue;
    std::unique_ptr<UnixIpcManager> manager;

  private:
    // "refuse" fails; a line goes back as a package.
    static int echoLines(BufferState* in, BufferState* out) {
        std::string text(in->data + in->cursor, static_cast<size_t>(in->length - in->cursor));
        size_t end = 0;
        while ((end = text.find('\n')) != std::string::npos) {
            const std::string line = text.substr(0, end);
            text.erase(0, end + 1);
            in->cursor += static_cast<int>(end + 1);
            if (line == "refuse") {
                return -1;
            }
            const std::string reply = WireClient::frame(1, line);
            std::copy(reply.begin(), reply.end(), out->data + out->length);
            out->length += static_cast<int>(reply.size());
        }
        return 0;
    }
};

std::string Ask(WireClient& client, const std::string& line) {
    if (!client.sendBytes(line + "\n")) {
        return "send failed";
    }
    const auto reply = client.next();
    return reply ? reply->body : "no reply";
}

class UnixIpcManagerTest : public testing::Test {
  protected:
    const std::string name = UniqueName();
};

TEST_F(UnixIpcManagerTest, BytesGoBothWaysAndSocketsAreNotInherited) {
    TestServer server(name);
    ASSERT_TRUE(server.manager->start());
    WireClient client;
    ASSERT_TRUE(client.connectTo(name));
    EXPECT_EQ(Ask(client, "hello"), "hello");
    EXPECT_NE(fcntl(server.lastClient, F_GETFD) & FD_CLOEXEC, 0);
    EXPECT_NE(fcntl(server.lastClient, F_GETFL) & O_NONBLOCK, 0);
    client.disconnect();
    EXPECT_TRUE(WaitUntil([&] { return server.closes == 1; }));
}

TEST_F(UnixIpcManagerTest, BufferFullWithoutAPackageClosesThatClientAlone) {
    TestServer server(name);
    server.manager->start();
    WireClient good;
    WireClient bad;
    ASSERT_TRUE(good.connectTo(name));
    ASSERT_TRUE(bad.connectTo(name));
    bad.sendBytes(std::string(40960, 'x'));
    EXPECT_TRUE(bad.isClosedByServer());
    EXPECT_TRUE(WaitUntil([&] { return server.closes == 1; }));
    EXPECT_EQ(Ask(good, "still here"), "still here");
}

TEST_F(UnixIpcManagerTest, RefusedInputClosesOnlyWithCloseOnError) {
    {
        TestServer server(name);
        server.manager->start();
        WireClient client;
        ASSERT_TRUE(client.connectTo(name));
        client.sendBytes("refuse\n");
        EXPECT_TRUE(client.isClosedByServer());
        EXPECT_EQ(server.closes, 0) << "the owner's close is for hang-ups";
        EXPECT_EQ(server.manager->notifyNeedWriteData(server.lastClient), 0);
    }
    TestServer tolerant(name, false);
    tolerant.manager->start();
    WireClient client;
    ASSERT_TRUE(client.connectTo(name));
    ASSERT_TRUE(client.sendBytes("refuse\nleft over"));
    ASSERT_TRUE(WaitUntil([&] { return tolerant.refusals == 1; }));
    EXPECT_EQ(Ask(client, "fresh"), "fresh") << "what was left of the input is gone";
}

TEST_F(UnixIpcManagerTest, QueuedBytesFollowWhenASlowClientReadsAtLast) {
    TestServer server(name);
    server.manager->start();
    WireClient client;
    ASSERT_TRUE(client.connectTo(name));
    ASSERT_TRUE(WaitUntil([&] { return server.connections == 1; }));
    constexpr int EVENTS = 600;
    const std::string filler(1000, '.');
    for (int i = 0; i < EVENTS; ++i) {
        server.queueEvent(std::to_string(i) + filler);
    }
    // One request; the socket is full long before all is sent, and nothing else will wake the loop.
    ASSERT_EQ(server.manager->notifyNeedWriteData(server.lastClient), 1);
    ASSERT_TRUE(WaitUntil([&] { return server.queue.getIpcPackageCount() < EVENTS; }));
    unsigned left = 0;
    do {
        left = server.queue.getIpcPackageCount();
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    } while (server.queue.getIpcPackageCount() != left);
    ASSERT_GT(left, 0U) << "the client's socket took everything: nothing was tested";
    for (int i = 0; i < EVENTS; ++i) {
        const auto event = client.next();
        ASSERT_TRUE(event.has_value()) << i;
        ASSERT_EQ(event->body, std::to_string(i) + filler);
    }
}

TEST_F(UnixIpcManagerTest, WritersAndTheLoopNeverMixTheirFrames) {
    TestServer server(name);
    server.manager->start();
    WireClient client;
    ASSERT_TRUE(client.connectTo(name));
    ASSERT_TRUE(WaitUntil([&] { return server.connections == 1; }));
    constexpr int WRITERS = 3;
    constexpr int EVENTS = 3000;
    std::vector<std::thread> writers;
    writers.reserve(WRITERS);
    for (int writer = 0; writer < WRITERS; ++writer) {
        writers.emplace_back([&, writer] {
            for (int i = 0; i < EVENTS; ++i) {
                server.queueEvent(std::to_string(writer) + ":" + std::to_string(i));
                if (i % 2 == writer % 2) {
                    server.manager->writeDataNow(server.lastClient);
                } else {
                    server.manager->notifyNeedWriteData(server.lastClient);
                }
            }
        });
    }
    std::vector<int> next(WRITERS, 0);
    for (int i = 0; i < WRITERS * EVENTS; ++i) {
        const auto event = client.next();
        ASSERT_TRUE(event.has_value()) << i << " of " << WRITERS * EVENTS;
        const size_t writer = static_cast<size_t>(event->body[0] - '0');
        ASSERT_LT(writer, next.size()) << event->body;
        ASSERT_EQ(event->body, std::to_string(writer) + ":" + std::to_string(next[writer]));
        ++next[writer];
    }
    for (std::thread& writer : writers) {
        writer.join();
    }
}

TEST_F(UnixIpcManagerTest, WritersMeetConnectionsThatComeAndGo) {
    TestServer server(name);
    server.manager->start();
    std::atomic<bool> done{false};
    std::thread writer([&] {
        while (!done) {
            server.queueEvent("event");
            const int fd = server.lastClient;
            if (fd != -1) {
                server.manager->writeDataNow(fd);
                server.manager->notifyNeedWriteData(fd);
            }
        }
    });
    for (int i = 0; i < 200; ++i) {
        WireClient client;
        ASSERT_TRUE(client.connectTo(name));
        client.sendBytes(i % 3 == 0 ? "refuse\n" : "half a line");
        if (i % 2 == 0) {
            client.next(std::chrono::milliseconds(20));
        }
    }
    done = true;
    writer.join();
    WireClient client;
    ASSERT_TRUE(client.connectTo(name));
    EXPECT_TRUE(client.sendBytes("hello\n"));
    std::string reply;
    while (reply != "hello") {
        const auto package = client.next();
        ASSERT_TRUE(package.has_value());
        reply = package->body;
        ASSERT_TRUE(reply == "event" || reply == "hello") << reply;
    }
}

TEST_F(UnixIpcManagerTest, TakenNameIsTakenOverOnceFree) {
    auto first = std::make_unique<TestServer>(name);
    first->manager->start();
    WireClient client;
    ASSERT_TRUE(client.connectTo(name));
    TestServer second(name);
    second.manager->start();
    client.disconnect();
    first.reset();
    ASSERT_TRUE(client.connectTo(name));
    EXPECT_EQ(Ask(client, "second"), "second");
    EXPECT_EQ(second.connections, 1);
}

TEST_F(UnixIpcManagerTest, StopRefusesNewClients) {
    TestServer server(name);
    server.manager->start();
    WireClient client;
    ASSERT_TRUE(client.connectTo(name));
    ASSERT_TRUE(server.manager->stop());
    WireClient late;
    EXPECT_FALSE(late.tryConnect(name));
}

TEST_F(UnixIpcManagerTest, AcceptsAgainWhenDescriptorsAreFreeAgain) {
    TestServer server(name);
    server.manager->start();
    WireClient first;
    ASSERT_TRUE(first.connectTo(name));
    ASSERT_EQ(Ask(first, "ready"), "ready");
    WireClient second;
    ASSERT_TRUE(second.tryConnect(name));  // waits in the backlog or is accepted
    ASSERT_EQ(Ask(second, "ready"), "ready");

    rlimit former{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &former), 0);
    const int nextFree = fcntl(0, F_DUPFD_CLOEXEC, 0);
    WireClient third;
    close(nextFree);
    rlimit none = former;
    none.rlim_cur = static_cast<rlim_t>(nextFree) + 1;  // room for the client's own socket alone
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    const bool connected = third.tryConnect(name);
    EXPECT_EQ(Ask(first, "meanwhile"), "meanwhile") << "others are served";
    EXPECT_EQ(server.connections, 2);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &former), 0);
    ASSERT_TRUE(connected);
    EXPECT_EQ(Ask(third, "at last"), "at last");
}

TEST_F(UnixIpcManagerTest, ClientModeConnectsAgainWhenTheServerIsBack) {
    std::atomic<int> connected{0};
    std::atomic<int> lost{0};
    IpcHandlerState handlers;
    handlers.readable = [](int, BufferState* in, BufferState*) {
        in->cursor = in->length;
        return 0;
    };
    handlers.connection = [&](int) { ++connected; };
    handlers.close = [&](int) { ++lost; };
    auto server = std::make_unique<TestServer>(name);
    server->manager->start();
    WireClient probe;
    ASSERT_TRUE(probe.connectTo(name));
    UnixIpcManager client(false, BUFFER_SIZE, name, handlers, "IpcClient", 10, 32);
    EXPECT_FALSE(client.createServer()) << "not in client mode";
    client.start();
    ASSERT_TRUE(WaitUntil([&] { return connected == 1; }));
    server.reset();
    ASSERT_TRUE(WaitUntil([&] { return lost == 1; }));
    server = std::make_unique<TestServer>(name);
    server->manager->start();
    EXPECT_TRUE(WaitUntil([&] { return connected == 2; }));
}

TEST_F(UnixIpcManagerTest, ClientModeReadsWhatAServerSentBeforeItWent) {
    std::atomic<int> received{0};
    std::atomic<bool> lost{false};
    std::atomic<bool> mayRead{false};
    IpcHandlerState handlers;
    handlers.saveUnuseBuffer = true;
    handlers.readable = [&](int, BufferState* in, BufferState*) {
        WaitUntil([&] { return mayRead.load(); });
        received += in->length - in->cursor;
        in->cursor = in->length;
        return 0;
    };
    handlers.close = [&](int) { lost = true; };
    auto server = std::make_unique<TestServer>(name);
    server->manager->start();
    // Smaller than what is sent: several reads are due when the server goes.
    constexpr int SMALL_BUFFER = 4096;
    UnixIpcManager client(false, SMALL_BUFFER, name, handlers, "IpcClient", 10, 32);
    client.start();
    ASSERT_TRUE(WaitUntil([&] { return server->connections == 1; }));
    constexpr int EVENTS = 100;
    for (int i = 0; i < EVENTS; ++i) {
        server->queueEvent(std::string(88, 'x'));
    }
    ASSERT_EQ(server->manager->writeDataNow(server->lastClient), 1);
    server.reset();
    mayRead = true;
    ASSERT_TRUE(WaitUntil([&] { return lost.load(); }));
    EXPECT_EQ(received, EVENTS * 100);
}

TEST_F(UnixIpcManagerTest, ClientModeEndsWhileNobodyIsThere) {
    UnixIpcManager client(false, BUFFER_SIZE, name, {}, "IpcClient", 10, 32);
    client.start();
    std::this_thread::sleep_for(std::chrono::milliseconds(50));  // well into its pause
    client.stop();
    EXPECT_FALSE(client.connect()) << "stopped";
}

}  // namespace
