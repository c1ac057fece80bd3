// SPDX-License-Identifier: Apache-2.0
//
// `tesubpf watch` as a user runs it, at a service that does what services do and what they should
// not.
#include <gtest/gtest.h>

#include <csignal>
#include <nlohmann/json.hpp>
#include <optional>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/child_process.h"
#include "tests/support/fake_service.h"
#include "tests/support/records.h"

namespace Tesu::Bpf {
namespace {

std::string ExitOf(int32_t pid) {
    return Bytes(Exit(0, pid, "name"));
}

class WatchTest : public testing::Test {
  protected:
    std::vector<std::string> watch(const std::vector<std::string>& options) const {
        std::vector<std::string> arguments = {TESUBPF_PATH, "watch", "--socket", name};
        arguments.insert(arguments.end(), options.begin(), options.end());
        return arguments;
    }

    const std::string name = FakeService::uniqueName();
    std::optional<FakeService> service{std::in_place, name};
};

TEST_F(WatchTest, PrintsEachEventOnceInOrderHoweverItIsCut) {
    constexpr uint32_t COUNT = 180;  // lines, of less than 300 bytes, that fit a pipe
    constexpr size_t LARGEST = 32768 - 12;
    ChildProcess client(watch({"--json", "--count", std::to_string(COUNT)}));
    EXPECT_EQ(service->acceptClient(3), (std::vector<uint32_t>{2, 3, 50005}));
    std::mt19937 random(1);
    std::string stream;
    std::string sent;
    for (uint32_t type = 1000; type < 1000 + COUNT + 20; ++type) {
        // Odd sizes leave most of them unaligned.
        std::string event = WireClient::word(type);
        event.resize(type % 50 == 7 ? LARGEST : 4 + random() % (type % 3 == 0 ? 20000 : 90), 'x');
        stream += WireClient::frame(3, event);
        if (type < 1000 + COUNT) {
            sent += std::to_string(type) + ":" + std::to_string(event.size()) + " ";
        }
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

TEST_F(WatchTest, ConnectsAgainWhateverBecameOfTheConnection) {
    ChildProcess client(watch({"--type", "exit"}));
    service->acceptClient(1);
    service->sendEvent(ExitOf(101));
    service->sendBytes(WireClient::word(7));  // no frame is as short
    EXPECT_TRUE(client.waitForError("does not speak the protocol"));
    EXPECT_NE(client.output.find("101"), std::string::npos);
    service->acceptClient(1);
    service->sendEvent(ExitOf(102));
    EXPECT_TRUE(client.waitForOutput("102"));

    service.reset();
    EXPECT_TRUE(client.waitForError("no daemon is listening on @" + name));
    service.emplace(name);
    service->acceptClient(1);
    service->sendEvent(ExitOf(103));
    EXPECT_TRUE(client.waitForOutput("103"));
}

TEST_F(WatchTest, EndsWithTheReaderOfItsOutput) {
    ChildProcess client(watch({"--type", "exit"}));
    service->acceptClient(1);
    EXPECT_TRUE(client.waitForError("connected"));
    client.closeOutput();  // no event is needed for it
    EXPECT_EQ(client.waitForExit(), 0);
}

}  // namespace
}  // namespace Tesu::Bpf
