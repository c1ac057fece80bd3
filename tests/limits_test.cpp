// SPDX-License-Identifier: Apache-2.0
//
// What a client may cost, with the limits switched on. As in wire_test, the tests hand the service
// its records.
#include <android-base/properties.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "client/status/status_request.h"
#include "ipc/frame_block.h"
#include "records/raw_event.h"
#include "tests/support/served_test.h"
#include "tests/support/wait_until.h"

namespace Tesu::Bpf {
namespace {

using android::base::SetProperty;

constexpr int32_t TYPE = RAW_EVENT_FD_UPDATE;
constexpr int32_t OTHER_TYPE = RAW_EVENT_DMABUF_SIZE;
constexpr size_t MEGABYTE = 1 << 20;

void Emit(int32_t type, size_t bytes) {
    std::string record = WireClient::word(static_cast<uint32_t>(type));
    record.resize(bytes, '.');
    TesuBpfService::handleBpfRingBuffEvent(nullptr, record.data(), static_cast<unsigned>(bytes));
}

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
        Emit(TYPE, 1000);
        ASSERT_TRUE(client.next().has_value());
    }
    EXPECT_TRUE(WaitUntil([&] { return !deaf.sendBytes("?"); }));
    WireClient mute = subscriber(TYPE);
    for (int i = 0; i < 3000; ++i) {
        Emit(TYPE, 1000);
        ASSERT_TRUE(client.next().has_value()) << i;
    }
    EXPECT_TRUE(mute.isClosedByServer());
    EXPECT_LT(FrameBlock::BytesInUse(), MEGABYTE) << "its memory is back";
    Emit(TYPE, 1000);
    EXPECT_TRUE(client.next().has_value());
}

TEST_F(LimitsTest, WhereAllHaveTooMuchTheHeaviestGoesFirst) {
    SetProperty(QUEUE_BYTES_PROPERTY, std::to_string(4 * MEGABYTE));
    start();
    WireClient light = subscriber(OTHER_TYPE);
    WireClient heavy = subscriber(TYPE);
    for (int i = 0; i < 3500; ++i) {
        Emit(TYPE, 1000);
        Emit(OTHER_TYPE, 500);
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
        Emit(TYPE, 1000);
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
