// SPDX-License-Identifier: Apache-2.0
//
// The service at its socket, as clients of every kind meet it, and what a client may cost. No
// kernel program is needed: a service that waits for readiness serves clients already, and the
// tests hand it the records.
#include <android-base/properties.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "client/status/status_request.h"
#include "daemon/properties.h"
#include "ipc/frame_block.h"
#include "records/raw_event.h"
#include "tests/support/served_test.h"
#include "tests/support/wait_until.h"

namespace Tesu::Bpf {
namespace {

using android::base::SetProperty;

// Their content is nobody's business but the client's.
constexpr int32_t TYPE = RAW_EVENT_FD_UPDATE;
constexpr int32_t OTHER_TYPE = RAW_EVENT_DMABUF_SIZE;

void Emit(const std::string& content, int32_t type = TYPE) {
    std::string record = WireClient::word(static_cast<uint32_t>(type)) + content;
    TesuBpfService::handleBpfRingBuffEvent(nullptr, record.data(),
                                           static_cast<unsigned>(record.size()));
}

// What the next event holds behind its type.
std::string NextContent(WireClient& client) {
    const auto event = client.next();
    return event && event->type == WireClient::EVENT ? event->body.substr(4) : "no event";
}

// The server's receive fails, so that it drops the connection without being hung up on.
void SendOutOfBand(const WireClient& client) {
    EXPECT_EQ(send(client.descriptor(), "!", 1, MSG_OOB | MSG_NOSIGNAL), 1);
}

class WireTest : public ServedTest {
  protected:
    void SetUp() override {
        ServedTest::SetUp();
        ASSERT_TRUE(IsSkipped() || client.subscribe(TYPE) == 0);
    }
};

TEST_F(WireTest, EveryRequestHasItsReply) {
    const auto word = WireClient::word;
    const auto frame = WireClient::frame;
    const auto request = WireClient::request;
    const std::string type = word(TYPE);
    const struct {
        const char* name;
        std::string bytes;
        std::map<uint32_t, int32_t> replies;  // result by request id
        bool isStuck = false;  // the service waits for the rest of a frame that never comes
    } rows[] = {
        {"a type that never comes", WireClient::subscription(9, INT_MIN), {{9, 0}}},
        {"more data", request(11, REGISTER_COMMAND, type + "more"), {{11, 0}}},
        {"no data", request(12, REGISTER_COMMAND, ""), {{12, -1}}},
        {"half a type", request(13, REGISTER_COMMAND, "abc"), {{13, -1}}},
        {"longer command", request(14, "register-event-monitors", type), {{14, -1}}},
        {"no NUL", request(17, REGISTER_COMMAND + std::string(10, 'x'), type), {{17, -1}}},
        {"an id alone", frame(0, word(18)), {{18, -1}}},
        {"a body shorter than its frame",
         word(20) + word(0) + word(4) + word(19) + type + type,
         {{19, -1}}},
        {"a body longer than its frame", word(8) + word(0) + word(1), {}},
        {"no room for a package", word(7) + word(0) + "abc", {}},
        {"an empty frame", word(0), {}, true},
        {"a reply", frame(1, word(20) + word(0) + word(0)), {}, true},
        {"four gigabytes", word(UINT_MAX) + word(0), {}, true},
    };
    constexpr uint32_t LAST = 1000;
    for (const auto& row : rows) {
        WireClient guest;
        ASSERT_TRUE(guest.tryConnect(SERVICE_SOCKET_NAME));
        EXPECT_TRUE(guest.sendBytes(row.bytes + request(LAST, "no such command", "")));
        for (const auto& [id, result] : row.replies) {
            EXPECT_EQ(guest.reply(id), result) << row.name;
        }
        if (row.isStuck) {
            guest.sendBytes(std::string(IPC_BUFFER_SIZE + 8192, 'x'));
            EXPECT_FALSE(guest.next().has_value()) << row.name;
            EXPECT_TRUE(guest.isClosedByServer()) << row.name;
        } else {
            EXPECT_EQ(guest.reply(LAST), -1) << row.name;
            EXPECT_FALSE(guest.next(WireClient::Milliseconds(0)).has_value()) << row.name;
        }
    }
    Emit("still served");
    EXPECT_EQ(NextContent(client), "still served");
}

TEST_F(WireTest, SubscriptionsEndWithTheirConnection) {
    SendOutOfBand(client);
    EXPECT_TRUE(client.isClosedByServer());
    // Both sides' numbers are free again, and given out again in the same order.
    ASSERT_TRUE(client.tryConnect(SERVICE_SOCKET_NAME));
    ASSERT_EQ(client.subscribe(OTHER_TYPE), 0);
    Emit("for the former client");
    Emit("for its heir", OTHER_TYPE);
    EXPECT_EQ(NextContent(client), "for its heir");
    const std::string type = WireClient::word(OTHER_TYPE);
    EXPECT_TRUE(client.sendBytes(WireClient::request(2, UNREGISTER_COMMAND, type)));
    EXPECT_EQ(client.reply(2), 0);
    Emit("for nobody", OTHER_TYPE);
    ASSERT_EQ(client.subscribe(TYPE), 0);
    Emit("subscribed again");
    EXPECT_EQ(NextContent(client), "subscribed again");
}

TEST_F(WireTest, ARecordThatNeverFitsBlocksNothing) {
    constexpr size_t LARGEST = IPC_MAX_PACKAGE_SIZE - IPC_PACKAGE_HEADER_SIZE - 4;
    Emit("");
    Emit(std::string(LARGEST, 'a'));
    Emit(std::string(LARGEST + 1, 'b'));
    Emit("");
    EXPECT_EQ(NextContent(client), "");
    EXPECT_EQ(NextContent(client), std::string(LARGEST, 'a'));
    EXPECT_EQ(NextContent(client), "");
}

TEST_F(WireTest, ASlowReaderGetsAllOfIt) {
    // Both sides are in this process: hardly a send of the service's is taken as a whole.
    for (int fd = 3; fd < 100; ++fd) {
        const int least = 0;
        setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &least, sizeof(least));
    }
    constexpr int EVENTS = 4000;
    const std::string filler(1000, '.');
    for (int i = 0; i < EVENTS; ++i) {
        Emit(std::to_string(i) + filler);
    }
    for (int i = 0; i < EVENTS; ++i) {
        ASSERT_EQ(NextContent(client), std::to_string(i) + filler);
        // At first so slow that the service gives up and waits for room: nothing else wakes it.
        std::this_thread::sleep_for(std::chrono::milliseconds(i < 20 ? 20 : 0));
    }
}

TEST_F(WireTest, WritersRepliesAndPassersByNeverMix) {
    constexpr int WRITERS = 3;
    constexpr int EVENTS = 3000;
    std::vector<std::jthread> threads;
    threads.emplace_back([](const std::stop_token& done) {
        const std::string subscription = WireClient::subscription(1, TYPE);
        const std::string sent[] = {subscription.substr(0, 30), subscription,
                                    WireClient::word(UINT_MAX) + std::string(300, '\x01'),
                                    std::string(IPC_BUFFER_SIZE + 8192, '\x7f'), subscription};
        std::vector<WireClient> silent;  // subscribe and never read
        for (int i = 0; !done.stop_requested(); ++i) {
            WireClient passer;
            passer.connectTo(SERVICE_SOCKET_NAME);
            passer.sendBytes(sent[i % 5]);
            if (i % 5 < 2) {
                SendOutOfBand(passer);
            } else if (i % 5 == 4 && silent.size() < 40) {
                silent.push_back(std::move(passer));
            }
        }
    });
    for (int writer = 0; writer < WRITERS; ++writer) {
        threads.emplace_back([writer] {
            for (int i = 0; i < EVENTS; ++i) {
                Emit(std::to_string(writer) + ":" + std::to_string(i));
            }
        });
    }
    int next[WRITERS] = {};
    for (int i = 0; i < WRITERS * EVENTS; ++i) {
        if (i % 10 == 0) {  // more than a buffer of requests
            ASSERT_EQ(client.subscribe(100 + i, static_cast<uint32_t>(i)), 0);
        }
        const std::string content = NextContent(client);
        const int writer = content[0] % WRITERS;  // '0' is 48
        ASSERT_EQ(content, std::to_string(writer) + ":" + std::to_string(next[writer]++));
    }
}

using ServiceTest = ServiceIn<SandboxTest>;

TEST_F(ServiceTest, PropertiesSayWhatStarts) {
    SetProperty(DISABLE_PROPERTY, "1");
    EXPECT_FALSE(BpfServiceMain());
    SetProperty(DISABLE_PROPERTY, "01");
    for (const std::string release : {"6.1.0-13-armmp", "6.1-rc3", "6.10.2", "16.1.0"}) {
        const std::string version = MajorMinor(release);
        SetProperty(KERNEL_VERSION_PROPERTY, version);
        EXPECT_EQ(TesuBpfService::checkKernelVersion(), version.size() == 3) << version;
    }

    // Anything but "0" is ready. Monitors without pinned maps end; the rest goes on.
    start("false");
    ASSERT_TRUE(client.connectTo(SERVICE_SOCKET_NAME));
    EXPECT_TRUE(WaitUntil(
        [] { return CountThreads("BpfServicePoll") + CountThreads("BpfServicePGpl") == 0; }));
    EXPECT_EQ(client.subscribe(TYPE), 0);
}

// A host may do so while clients are there and more come.
TEST_F(SandboxTest, AServiceIsDeletedWithItsClients) {
    SetProperty(READY_PROPERTY, "0");
    const std::jthread passers([](const std::stop_token& done) {
        while (!done.stop_requested()) {
            WireClient passer;
            passer.tryConnect(SERVICE_SOCKET_NAME);
            passer.sendBytes(WireClient::subscription(1, TYPE));
        }
    });
    for (int i = 0; i < 20; ++i) {
        ASSERT_TRUE(BpfServiceMain());
        WireClient client;
        ASSERT_TRUE(client.connectTo(SERVICE_SOCKET_NAME));
        EXPECT_EQ(client.subscribe(TYPE), 0);
        delete TesuBpfService::GetInstance();
    }
}

TEST_F(ServiceTest, StopIsPromptAndFinal) {
    EXPECT_EQ(service->Wait(), 0) << "nothing was started, and may still be";
    SetProperty(KERNEL_VERSION_PROPERTY, "6.1");
    start();
    EXPECT_TRUE(BpfServiceMain()) << "a second start keeps what runs";
    ASSERT_TRUE(client.connectTo(SERVICE_SOCKET_NAME));
    EXPECT_EQ(CountThreads("BpfServicePoll"), 1);
    EXPECT_EQ(CountThreads("BpfServicePGpl"), 0) << "not before readiness";
    service->stop();
    EXPECT_FALSE(client.tryConnect(SERVICE_SOCKET_NAME));
    // The supervisor looks after its threads once a minute.
    ASSERT_EQ(waitResult.wait_for(std::chrono::seconds(30)), std::future_status::ready);
    EXPECT_EQ(waitResult.get(), 0);
    // /proc may list a thread a moment after it was joined.
    EXPECT_TRUE(WaitUntil(
        [] { return CountThreads("BpfServicePoll") + CountThreads("BpfServiceTr") == 0; }));
    EXPECT_FALSE(BpfServiceMain()) << "a stopped service stays stopped";
    EXPECT_EQ(service->Wait(), 0);
}

// Makes records of 1000 bytes.
const std::string FILLER(996, '.');

constexpr size_t MEGABYTE = 1 << 20;

class LimitsTest : public ServiceIn<SandboxTest> {
  protected:
    static WireClient subscriber(int32_t type) {
        WireClient client;
        EXPECT_TRUE(client.connectTo(SERVICE_SOCKET_NAME));
        EXPECT_EQ(client.subscribe(type), 0);
        return client;
    }
};

TEST_F(LimitsTest, AClientThatDoesNotReadIsDroppedAndTheOthersGetAll) {
    SetProperty(CLIENT_QUEUE_BYTES_PROPERTY, std::to_string(MEGABYTE));
    start();
    client = subscriber(TYPE);
    const WireClient deaf = subscriber(TYPE);
    // What it has not read leaves its socket without room when it is shut down.
    for (int i = 0; i < 60; ++i) {
        if (i == 40) {
            ASSERT_EQ(shutdown(deaf.descriptor(), SHUT_RD), 0);
        }
        Emit(FILLER);
        ASSERT_TRUE(client.next().has_value());
    }
    EXPECT_TRUE(WaitUntil([&] { return !deaf.sendBytes("?"); }));
    WireClient mute = subscriber(TYPE);
    for (int i = 0; i < 3000; ++i) {
        Emit(FILLER);
        ASSERT_TRUE(client.next().has_value()) << i;
    }
    EXPECT_TRUE(mute.isClosedByServer());
    EXPECT_LT(FrameBlock::BytesInUse(), MEGABYTE) << "its memory is back";
    Emit(FILLER);
    EXPECT_TRUE(client.next().has_value());
}

TEST_F(LimitsTest, WhereAllHaveTooMuchTheHeaviestGoesFirst) {
    SetProperty(QUEUE_BYTES_PROPERTY, std::to_string(4 * MEGABYTE));
    start();
    WireClient light = subscriber(OTHER_TYPE);
    WireClient heavy = subscriber(TYPE);
    for (int i = 0; i < 3500; ++i) {
        Emit(FILLER);
        Emit(FILLER.substr(500), OTHER_TYPE);
    }
    EXPECT_TRUE(heavy.isClosedByServer());
    int events = 0;
    for (; events < 3500 && light.next().has_value(); ++events) {
    }
    EXPECT_EQ(events, 3500);
}

TEST_F(LimitsTest, SubscriptionsAndClientsAreCounted) {
    SetProperty(CLIENT_TYPES_PROPERTY, "2");
    SetProperty(CLIENTS_PROPERTY, "2");
    SetProperty(CLIENT_UIDS_PROPERTY, "12345, " + std::to_string(getuid()));
    start();
    client = subscriber(TYPE);
    EXPECT_EQ(client.subscribe(OTHER_TYPE), 0);
    EXPECT_EQ(client.subscribe(7), -1);
    EXPECT_EQ(client.subscribe(TYPE), 0) << "which it has";
    EXPECT_TRUE(client.sendBytes(
        WireClient::request(2, UNREGISTER_COMMAND, WireClient::word(uint32_t{TYPE}))));
    EXPECT_EQ(client.subscribe(7), 0);
    WireClient second = subscriber(TYPE);
    WireClient third;
    ASSERT_TRUE(third.tryConnect(SERVICE_SOCKET_NAME));
    EXPECT_TRUE(third.isClosedByServer());
    second = {};
    EXPECT_TRUE(WaitUntil([&] {
        return third.tryConnect(SERVICE_SOCKET_NAME) && third.subscribe(TYPE).has_value();
    }));
}

TEST_F(LimitsTest, OtherUsersAreSentAwayUnlessTheyAreOfAGroup) {
    constexpr gid_t OTHER = 64001;
    constexpr gid_t MEMBERS = 64002;
    SetProperty(CLIENT_UIDS_PROPERTY, std::to_string(getuid() + 1) + ",nobody");
    SetProperty(CLIENT_GIDS_PROPERTY, std::to_string(MEMBERS) + ",nobody");
    start();
    const auto connectAs = [](gid_t group, std::vector<gid_t> others) {
        EXPECT_EQ(setgroups(others.size(), others.data()), 0);
        EXPECT_EQ(setegid(group), 0);
        WireClient tried;
        EXPECT_TRUE(tried.connectTo(SERVICE_SOCKET_NAME));
        return tried;
    };
    EXPECT_TRUE(connectAs(OTHER, {}).isClosedByServer());
    EXPECT_TRUE(connectAs(OTHER, {OTHER}).isClosedByServer());
    EXPECT_EQ(connectAs(MEMBERS, {}).subscribe(TYPE), 0);
    const char* const emulator = getenv("TESUBPF_EMULATOR");
    if (emulator == nullptr || *emulator == '\0') {  // which does not know a peer's groups
        EXPECT_EQ(connectAs(OTHER, {1, 2, 3, MEMBERS}).subscribe(TYPE), 0);
    }
}

TEST_F(LimitsTest, StatusSaysWhatEachClientHasAndCostsAsLittle) {
    start();
    client = subscriber(OTHER_TYPE);
    ASSERT_EQ(client.subscribe(TYPE), 0);
    for (int i = 0; i < 2000; ++i) {
        Emit(FILLER);
    }
    const Result<StatusReport> report = RequestStatus(SERVICE_SOCKET_NAME);
    ASSERT_TRUE(report) << report.error();
    EXPECT_EQ(report->service.pid, getpid());
    ASSERT_EQ(report->rings.size(), 2);
    ASSERT_EQ(report->clients.size(), 2) << "this one, and the one that asks";
    const auto& [status, types] = report->clients[0];
    EXPECT_EQ(status.pid, getpid());
    EXPECT_EQ(types, (std::vector<int32_t>{OTHER_TYPE, TYPE}));
    EXPECT_EQ(status.queuedPackages + status.sentPackages, 2000);
    EXPECT_EQ(status.queuedBytes, status.queuedPackages * 1012);

    WireClient asker;
    ASSERT_TRUE(asker.tryConnect(SERVICE_SOCKET_NAME));
    const size_t before = FrameBlock::BytesInUse();
    for (uint32_t id = 1; id <= 3000; ++id) {
        ASSERT_TRUE(asker.sendBytes(WireClient::request(id, STATUS_COMMAND, "")));
    }
    EXPECT_LT(FrameBlock::BytesInUse(), before + MEGABYTE / 2) << "who does not read asks no more";
}

}  // namespace
}  // namespace Tesu::Bpf
