// SPDX-License-Identifier: Apache-2.0
//
// The client program itself, as a user runs it, against a real server.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "records/raw_event.h"
#include "tests/support/child_process.h"
#include "tests/support/test_service.h"
#include "tests/support/wait_until.h"

namespace Tesu::Bpf {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

std::string ExitEvent(int32_t pid) {
    RawTaskExitEvent record{};
    record.header.type = RAW_EVENT_TASK_EXIT;
    record.pid = pid;
    record.taskType = RAW_TASK_PROCESS;
    return {reinterpret_cast<const char*>(&record), sizeof(record)};
}

class WatchTest : public testing::Test {
  protected:
    std::vector<std::string> watch(const std::vector<std::string>& options) const {
        std::vector<std::string> arguments = {TESUBPF_PATH, "watch", "--socket", name};
        arguments.insert(arguments.end(), options.begin(), options.end());
        return arguments;
    }

    const std::string name = TestService::uniqueSocketName();
    TestService service{name};
};

TEST_F(WatchTest, PrintsExactlyTheCountAskedForAndEnds) {
    ChildProcess client(watch({"--json", "--count", "25"}));
    ASSERT_TRUE(service.waitForSubscriptions(2));
    EXPECT_THAT(service.subscriptions(), ElementsAre(2, 3));
    for (int32_t pid = 1; pid <= 100; ++pid) {
        service.sendEvent(ExitEvent(pid));
    }
    EXPECT_EQ(client.waitForExit(), 0);
    std::istringstream lines(client.output);
    std::string line;
    int32_t pid = 0;
    while (std::getline(lines, line)) {
        EXPECT_EQ(nlohmann::json::parse(line)["pid"], ++pid);
    }
    EXPECT_EQ(pid, 25);
    EXPECT_THAT(client.error, HasSubstr("connected to @" + name));
}

TEST_F(WatchTest, ShowsAnEventAtOnceAndEndsOnASignal) {
    for (const int signal : {SIGINT, SIGTERM}) {
        ChildProcess client(watch({"--type", "exit"}));
        ASSERT_TRUE(client.waitForError("connected"));
        ASSERT_TRUE(service.waitForSubscriptions(signal == SIGINT ? 1 : 2));
        service.sendEvent(ExitEvent(4711));
        EXPECT_TRUE(client.waitForOutput("4711"));
        client.sendSignal(signal);
        EXPECT_EQ(client.waitForExit(), 0);
        EXPECT_EQ(std::count(client.output.begin(), client.output.end(), '\n'), 1);
    }
}

TEST_F(WatchTest, EndsWhenTheReaderOfItsOutputHasGone) {
    ChildProcess client(watch({}));
    ASSERT_TRUE(client.waitForError("connected"));
    // No event is needed for it.
    client.closeOutput();
    EXPECT_EQ(client.waitForExit(), 0);
}

TEST_F(WatchTest, EndsAlthoughTheReaderOfItsOutputDoesNotRead) {
    ChildProcess client(watch({"--json", "--type", "exit"}));
    ASSERT_TRUE(service.waitForSubscriptions(1));
    client.holdOutput();
    for (int32_t pid = 1; pid <= 20000; ++pid) {
        service.sendEvent(ExitEvent(pid));
    }
    // The rest does not fit the pipe, whose 64 KiB are not used to the last byte.
    ASSERT_TRUE(WaitUntil([&] { return client.heldOutput() > 16384; }));
    client.sendSignal(SIGTERM);
    EXPECT_EQ(client.waitForExit(), 0);
}

TEST_F(WatchTest, SaysThatNobodyListensAndFailsWhenThatStaysSo) {
    ChildProcess client({TESUBPF_PATH, "watch", "--socket", name + ".absent", "--seconds", "0.3"});
    EXPECT_EQ(client.waitForExit(), 1);
    EXPECT_THAT(client.error, HasSubstr("no daemon is listening on @" + name + ".absent"));
    EXPECT_THAT(client.output, IsEmpty());
}

TEST_F(WatchTest, FailsWhenEverySubscriptionIsRefused) {
    service.refuse(2);
    service.refuse(3);
    ChildProcess client(watch({"--seconds", "60"}));
    ASSERT_TRUE(client.waitForError("refused the subscription to event type 3"));
    client.sendSignal(SIGTERM);
    EXPECT_EQ(client.waitForExit(), 1);
}

TEST_F(WatchTest, RefusesWrongUsage) {
    const std::vector<std::vector<std::string>> wrong = {{"--type", "forks"},
                                                         {"--count", "0"},
                                                         {"--count", "-1"},
                                                         {"--seconds", "soon"},
                                                         {"--what"}};
    for (const std::vector<std::string>& options : wrong) {
        ChildProcess client(watch(options));
        EXPECT_EQ(client.waitForExit(), 2) << options[0];
        EXPECT_THAT(client.error, testing::Not(IsEmpty()));
    }
    EXPECT_THAT(service.subscriptions(), IsEmpty());
}

}  // namespace
}  // namespace Tesu::Bpf
