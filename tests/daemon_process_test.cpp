// SPDX-License-Identifier: Apache-2.0
//
// The daemon itself, as a host starts it. Runs in a sandbox of its own, so that it meets neither
// the pins nor the daemon of this machine.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <sstream>
#include <string>
#include <vector>

#include "daemon/host_files.h"
#include "ipc/local_socket.h"
#include "records/contract.h"
#include "tests/support/child_process.h"
#include "tests/support/dump_folders.h"
#include "tests/support/sandbox.h"
#include "tests/support/wait_until.h"

namespace Tesu::Bpf {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;

class DaemonTest : public KernelTest {
    const DumpFolders folders{DUMP_DIR};
};

TEST_F(DaemonTest, WaitsForThePinsUntilItIsEnded) {
    for (const int signal : {SIGTERM, SIGINT}) {
        ChildProcess daemon({TESUBPFD_PATH});
        ASSERT_TRUE(daemon.waitForError("tesubpfload"));
        EXPECT_FALSE(IsServiceListening(SERVICE_SOCKET_NAME));
        daemon.sendSignal(signal);
        EXPECT_EQ(daemon.waitForExit(), 0) << daemon.error;
        EXPECT_THAT(daemon.output, IsEmpty());
    }
}

TEST_F(DaemonTest, ServesAtOnceWhenToldThatAllIsReady) {
    ChildProcess daemon({TESUBPFD_PATH, "--property", "sys.tesu_bpf_ready=0"});
    ASSERT_TRUE(daemon.waitForOutput("serving on @/mnt/bpfframework/tesubpfdispatcher\n"))
        << daemon.error;
    EXPECT_TRUE(IsServiceListening(SERVICE_SOCKET_NAME));
    daemon.sendSignal(SIGTERM);
    EXPECT_EQ(daemon.waitForExit(), 0) << daemon.error;
    EXPECT_FALSE(IsServiceListening(SERVICE_SOCKET_NAME));
}

TEST_F(DaemonTest, CarriesAProcessFromTheKernelToAClient) {
    ChildProcess load({TESUBPFLOAD_PATH});
    ASSERT_EQ(load.waitForExit(), 0) << load.output << load.error;
    ChildProcess daemon({TESUBPFD_PATH});
    ASSERT_TRUE(daemon.waitForOutput("serving on")) << daemon.error;
    ChildProcess client({TESUBPF_PATH, "watch", "--json"});
    ASSERT_TRUE(client.waitForError("connected")) << client.error;

    // Some time after the socket is there the programs are attached and switched on; a process of
    // that moment is seen by half.
    const auto runProcess = [] {
        ChildProcess process({"/bin/true"});
        process.waitForExit();
        return "\"pid\":" + std::to_string(process.pid()) + ",";
    };
    ASSERT_TRUE(WaitUntil([&] {
        return client.waitForOutput(runProcess(), std::chrono::milliseconds(200));
    })) << daemon.error;
    const std::string pid = runProcess();
    ASSERT_TRUE(client.waitForOutput(pid)) << client.error;
    ASSERT_TRUE(client.waitForOutput(runProcess())) << client.error;
    client.sendSignal(SIGTERM);
    EXPECT_EQ(client.waitForExit(), 0);
    // Of the process alone: a sanitizer gives it a thread.
    const std::string isProcess = "\"task_type_name\":\"process\"";
    std::vector<std::string> lines;
    std::istringstream output(client.output);
    for (std::string line; std::getline(output, line);) {
        if (line.find(pid) != std::string::npos && line.find(isProcess) != std::string::npos) {
            lines.push_back(line);
        }
    }
    ASSERT_EQ(lines.size(), 2U) << client.output;
    EXPECT_THAT(lines[0], AllOf(HasSubstr("\"event\":\"task-create\""),
                                HasSubstr("\"ppid\":" + std::to_string(getpid()) + ",")));
    EXPECT_THAT(lines[1],
                AllOf(HasSubstr("\"event\":\"task-exit\""), HasSubstr("\"comm\":\"true\"")));

    daemon.sendSignal(SIGTERM);
    EXPECT_EQ(daemon.waitForExit(), 0) << daemon.error;
    ChildProcess unload({TESUBPFLOAD_PATH, "--unload"});
    EXPECT_EQ(unload.waitForExit(), 0) << unload.output << unload.error;
}

TEST_F(DaemonTest, RefusesASecondDaemon) {
    ChildProcess waiting({TESUBPFD_PATH});
    ASSERT_TRUE(waiting.waitForError("tesubpfload"));
    ChildProcess second({TESUBPFD_PATH, "--property", "sys.tesu_bpf_ready=0"});
    EXPECT_EQ(second.waitForExit(), 3);
    EXPECT_THAT(second.error, HasSubstr("another daemon runs already"));
}

TEST_F(DaemonTest, SaysWhyItDoesNotStart) {
    ChildProcess malformed({TESUBPFD_PATH, "--property", "novalue"});
    EXPECT_EQ(malformed.waitForExit(), 2);
    EXPECT_THAT(malformed.error, HasSubstr("\"novalue\""));

    ChildProcess disabled({TESUBPFD_PATH, "--property", "sys.tesu_bpf_ready=1", "--property",
                           "persist.sys.stability.bpfframework.disable=1"});
    EXPECT_EQ(disabled.waitForExit(), 4);
    EXPECT_THAT(disabled.error, HasSubstr("disabled"));
}

}  // namespace
}  // namespace Tesu::Bpf
