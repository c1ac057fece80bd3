// SPDX-License-Identifier: Apache-2.0
//
// `tesubpf watch` as a user runs it, at a service that does what services do and what they should
// not.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <memory>
#include <nlohmann/json.hpp>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "records/raw_event.h"
#include "tests/support/child_process.h"
#include "tests/support/fake_service.h"

namespace Tesu::Bpf {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

std::string ExitEvent(int32_t pid) {
    const RawTaskExitEvent record{.header = {.type = RAW_EVENT_TASK_EXIT, .padding = 0, .time = 0},
                                  .pid = pid,
                                  .comm = {},
                                  .taskType = RAW_TASK_PROCESS};
    return {reinterpret_cast<const char*>(&record), sizeof(record)};
}

class WatchTest : public testing::Test {
  protected:
    std::vector<std::string> watch(const std::vector<std::string>& options) const {
        std::vector<std::string> arguments = {TESUBPF_PATH, "watch", "--socket", name};
        arguments.insert(arguments.end(), options.begin(), options.end());
        return arguments;
    }

    const std::string name = FakeService::uniqueName();
    std::unique_ptr<FakeService> service = std::make_unique<FakeService>(name);
};

TEST_F(WatchTest, PrintsEachEventOnceInOrderHoweverItIsCut) {
    constexpr int COUNT = 180;  // lines, of less than 300 bytes, that fit a pipe
    constexpr size_t LARGEST = 32768 - 12;
    ChildProcess client(watch({"--json", "--count", std::to_string(COUNT)}));
    EXPECT_THAT(service->acceptClient(2), ElementsAre(2, 3));
    std::mt19937 random(1);
    std::string stream;
    std::string sent;
    for (uint32_t i = 0; i < COUNT + 20; ++i) {
        // Of unknown types; odd sizes leave most of them unaligned.
        std::string event = WireClient::word(100000 + i);
        event.resize(i % 50 == 7 ? LARGEST : 4 + random() % (i % 3 == 0 ? 20000 : 90), 'x');
        stream += WireClient::frame(3, event);
        sent +=
            i < COUNT ? std::to_string(100000 + i) + ":" + std::to_string(event.size()) + " " : "";
    }
    for (size_t at = 0, size = 0; at < stream.size(); at += size) {
        size = 1 + random() % (random() % 4 == 0 ? 60000 : 100);
        const std::string piece = stream.substr(at, size);
        send(service->descriptor(), piece.data(), piece.size(), MSG_NOSIGNAL);
    }
    EXPECT_EQ(client.waitForExit(), 0);
    std::string printed;
    std::istringstream lines(client.output);
    for (std::string line; std::getline(lines, line);) {
        const auto event = nlohmann::json::parse(line);
        printed += event["type"].dump() + ":" + event["size_bytes"].dump() + " ";
    }
    EXPECT_EQ(printed, sent);
}

TEST_F(WatchTest, SaysWhatIsRefusedAndEndsOnASignal) {
    struct {
        std::vector<uint32_t> refused;
        int signal;
        int status;
    } const cases[] = {{{2, 3}, SIGINT, 1}, {{3}, SIGTERM, 0}};
    for (const auto& [refused, signal, status] : cases) {
        ChildProcess client(watch({"--seconds", "1000"}));
        service->acceptClient(2, refused);
        EXPECT_TRUE(client.waitForError("refused the subscription to event type 3"));
        service->sendEvent(ExitEvent(4711));
        EXPECT_TRUE(client.waitForOutput("4711"));
        client.sendSignal(signal);
        EXPECT_EQ(client.waitForExit(), status);
    }
}

TEST_F(WatchTest, ConnectsAgainWhateverBecameOfTheConnection) {
    ChildProcess client(watch({"--type", "exit"}));
    service->acceptClient(1);
    service->sendEvent(ExitEvent(101));
    service->sendBytes(WireClient::word(7));
    EXPECT_TRUE(client.waitForError("does not speak the protocol"));
    EXPECT_THAT(service->acceptClient(1), ElementsAre(3));
    service->sendEvent(ExitEvent(102));
    EXPECT_TRUE(client.waitForOutput("102"));

    service.reset();
    EXPECT_TRUE(client.waitForError("no daemon is listening on @" + name));
    service = std::make_unique<FakeService>(name);
    EXPECT_THAT(service->acceptClient(1), ElementsAre(3));
    service->sendEvent(ExitEvent(103));
    EXPECT_TRUE(client.waitForOutput("103"));
    EXPECT_THAT(client.output, HasSubstr("101"));
}

TEST_F(WatchTest, EndsWhateverTheReaderOfItsOutputDoes) {
    for (const bool isReaderGone : {true, false}) {
        ChildProcess client(watch({"--json", "--type", "exit"}));
        service->acceptClient(1);
        EXPECT_TRUE(client.waitForError("connected"));
        if (isReaderGone) {
            client.closeOutput();  // no event is needed for it
        } else {
            client.holdOutput();
            std::string stream;
            for (int32_t pid = 1; pid <= 1200; ++pid) {
                stream += WireClient::frame(3, ExitEvent(pid));
            }
            service->sendBytes(stream);
            // The rest does not fit the pipe, whose 64 KiB are not used to the last byte.
            ASSERT_TRUE(WaitUntil([&] { return client.heldOutput() > 16384; }));
            client.sendSignal(SIGTERM);
        }
        EXPECT_EQ(client.waitForExit(), 0);
    }
}

TEST_F(WatchTest, FailsWhenNobodyListens) {
    ChildProcess client({TESUBPF_PATH, "watch", "--socket", name + ".absent", "--seconds", "0.3"});
    EXPECT_EQ(client.waitForExit(), 1);
    EXPECT_THAT(client.error, HasSubstr("no daemon is listening on @" + name + ".absent"));
}

}  // namespace
}  // namespace Tesu::Bpf
