// SPDX-License-Identifier: Apache-2.0
//
// A stream of the client library, at a service that does what services do and what they should not.
#include <gtest/gtest.h>
#include <poll.h>

#include <future>
#include <numeric>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "libtesubpf/tesubpf.h"
#include "tests/support/fake_service.h"
#include "tests/support/records.h"

namespace Tesu::Bpf {
namespace {

class ClientLibraryTest : public testing::Test {
  protected:
    ~ClientLibraryTest() override { tesubpf_close(stream); }

    int open(const std::vector<uint32_t>& types) {
        const tesubpf_options options{.size = sizeof(options), .socket_name = name.c_str()};
        return tesubpf_open(&stream, types.data(), types.size(), &options);
    }

    bool isReadable() const {
        pollfd entry{.fd = tesubpf_fd(stream), .events = POLLIN, .revents = 0};
        return poll(&entry, 1, 0) == 1;
    }

    // The next events, in short: kind and type, and the reason where there is one.
    std::string take(size_t count) {
        std::string taken;
        tesubpf_event event;
        WaitUntil([&] {
            for (; count > 0 && tesubpf_next(stream, &event) == 1; --count) {
                taken += NAMES[event.kind] + std::to_string(event.type) + event.reason + " ";
            }
            return count == 0 || !WaitUntil([this] { return isReadable(); });
        });
        return taken;
    }

    void reply(uint32_t type, uint32_t result) const {
        service->sendBytes(WireClient::frame(
            1, WireClient::word(type) + WireClient::word(result) + WireClient::word(0)));
    }

    static inline const std::string NAMES[] = {"",        "record",  "connected", "subscribed",
                                               "refused", "waiting", "malformed", "lost"};
    std::string name = FakeService::uniqueName();
    std::optional<FakeService> service{std::in_place, name};
    tesubpf_stream* stream = nullptr;
};

TEST_F(ClientLibraryTest, HandsOutEachRecordOnceInOrderHoweverItIsCut) {
    constexpr size_t LARGEST = 32768 - 12;
    std::vector<uint32_t> types(20000);  // whose requests no socket holds at once
    std::iota(types.begin(), types.end(), 0);
    ASSERT_EQ(open(types), 0);
    EXPECT_EQ(take(1), "connected0 ");
    auto accepted = std::async([&] { return service->acceptClient(types.size()); });
    EXPECT_EQ(take(1), "subscribed0 ");
    EXPECT_EQ(accepted.get(), types);
    std::mt19937 random(1);
    std::string sent;
    std::string records;
    for (uint32_t type = 1000; type < 1200; ++type) {
        // Odd sizes leave most of them unaligned.
        std::string record = WireClient::word(type);
        record.resize(type % 50 == 7 ? LARGEST : 4 + random() % (type % 3 == 0 ? 20000 : 90), 'x');
        sent += WireClient::frame(3, record);
        records += record;
    }
    std::string received;
    for (size_t at = 0, size = 0; at < sent.size(); at += size) {
        size = 1 + random() % (random() % 4 == 0 ? 60000 : 100);
        service->sendBytes(sent.substr(at, size));
        tesubpf_event event;
        while (isReadable()) {
            while (tesubpf_next(stream, &event) == 1) {
                received.append(static_cast<const char*>(event.data), event.size);
            }
        }
    }
    EXPECT_TRUE(received == records);
}

TEST_F(ClientLibraryTest, SaysInOrderWhatBecomesOfTheConnection) {
    ASSERT_EQ(open({3, 50005, 3, 77}), 0);
    EXPECT_EQ(take(1), "connected0 ");
    EXPECT_FALSE(isReadable()) << "a service that is silent costs nothing";
    service->acceptClient(0);
    reply(3, 0);
    service->sendEvent(Bytes(Exit(0, 1, "name")));
    reply(3, 0);
    reply(77, UINT32_MAX);
    reply(5, UINT32_MAX);
    service->sendEvent("?");
    reply(50005, UINT32_MAX);
    EXPECT_EQ(take(5), "record3 refused77 record4294967295 refused50005 subscribed0 ");
    EXPECT_FALSE(isReadable());
    for (const std::string reason : {"too slow, the daemon did not wait any longer",
                                     "the daemon does not admit this client"}) {
        service->hangUp();
        EXPECT_EQ(take(1), "lost0" + reason + " ");
        service->acceptClient(0);  // which asked whether anybody listens
        EXPECT_EQ(take(1), "connected0 ");
        service->acceptClient(0);
    }
    for (const uint32_t type : {3, 50005, 77}) {
        reply(type, 0);
    }
    service->sendEvent(Bytes(Exit(0, 2, "name")));
    service->sendBytes(WireClient::word(7));
    EXPECT_EQ(take(4),
              "subscribed0 record3 malformed0a frame of 7 bytes (possible are 8 to 32764) lost0 ");
    service.reset();
    EXPECT_EQ(take(1), "waiting0 ");
}

TEST_F(ClientLibraryTest, ReadsWhatARecordCoversAndRefusesWhatMakesNoSense) {
    const RawTaskExitEvent sent = Exit(1, 2, "name");
    RawTaskExitEvent read = Exit(-1, -1, "sixteen-letters!", -1);
    tesubpf_event event{};
    event.size = 22;
    event.data = &sent;
    tesubpf_read(&event, &read, sizeof(read));
    EXPECT_EQ(Bytes(read), Bytes(Exit(1, 2, "na", 0)));

    EXPECT_EQ(open({}), -EINVAL);
    name.resize(108, 'x');
    EXPECT_EQ(open({3}), -ENAMETOOLONG);
    const size_t laterOptions[] = {3 * sizeof(size_t), 0, 1};
    const uint32_t type = 3;
    EXPECT_EQ(
        tesubpf_open(&stream, &type, 1, reinterpret_cast<const tesubpf_options*>(laterOptions)),
        -E2BIG);
    uint32_t number = 0;
    EXPECT_EQ(tesubpf_type_number("lost", &number), 0);
    EXPECT_STREQ(tesubpf_type_name(number), "records-lost");
}

}  // namespace
}  // namespace Tesu::Bpf
