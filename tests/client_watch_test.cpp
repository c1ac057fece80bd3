// SPDX-License-Identifier: Apache-2.0
//
// `tesubpf watch` as a user runs it, at a service that does what services do and what they should
// not.
#include <gtest/gtest.h>

#include <csignal>
#include <optional>
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

TEST_F(WatchTest, ConnectsAgainWhateverBecameOfTheConnection) {
    ChildProcess client(watch({"--type", "exit"}));
    service->acceptClient(1);
    service->sendEvent(ExitOf(101));
    service->sendBytes(WireClient::word(7));  // no frame is as short
    EXPECT_TRUE(client.waitForError("does not speak the protocol"));
    EXPECT_NE(client.output.find("101"), std::string::npos);
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
