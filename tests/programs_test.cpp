// SPDX-License-Identifier: Apache-2.0
//
// The programs that are installed, together: loader, daemon and client, on the running kernel.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include "ipc/local_socket.h"
#include "records/contract.h"
#include "tests/support/child_process.h"
#include "tests/support/kernel.h"
#include "tests/support/temp_dir.h"
#include "tests/support/wait_until.h"

namespace Tesu::Bpf {
namespace {

using testing::HasSubstr;
using testing::Not;

constexpr const char* KPROBES = "/sys/bus/event_source/devices/kprobe";

// What a program prints that runs to its end by itself.
std::string OutputOf(const std::vector<std::string>& arguments, int status = 0) {
    ChildProcess program(arguments);
    EXPECT_EQ(program.waitForExit(), status) << program.error;
    return program.output + program.error;
}

// A kernel of another version than 6.1 can be asked for the programs that only that is to have.
std::vector<std::string> DaemonOn61() {
    utsname system{};
    uname(&system);
    return std::string(system.release).starts_with("6.1.")
               ? std::vector<std::string>{TESUBPFD_PATH}
               : std::vector<std::string>{TESUBPFD_PATH, "--property", "ro.kernel.version=6.1"};
}

// For a program that writes more than anybody reads meanwhile.
std::vector<std::string> Redirected(const std::string& redirection,
                                    const std::vector<std::string>& command) {
    std::vector<std::string> shell = {"/bin/sh", "-c", "exec \"$@\" " + redirection, "sh"};
    shell.insert(shell.end(), command.begin(), command.end());
    return shell;
}

// As the daemon's log has them: the programs for functions that this kernel has not, or cannot
// probe.
std::set<std::string> ExpectedUnattached() {
    std::set<std::string> expected = {TESU_CORE_OBJECT ", type: enter_fd_install",
                                      TESU_CORE_OBJECT ", type: return_filp_close",
                                      TESU_GPL_OBJECT ", type: enter_dma_buf_file_release",
                                      TESU_GPL_OBJECT ", type: enter_dma_buf_stats_setup"};
    std::ifstream symbols("/proc/kallsyms");
    for (std::string line; std::filesystem::exists(KPROBES) && std::getline(symbols, line);) {
        const std::string name = "_" + line.substr(line.rfind(' ') + 1);
        std::erase_if(expected, [&](const auto& program) { return program.ends_with(name); });
    }
    return expected;
}

std::string LinesWith(const std::string& path, const std::string& part) {
    std::string found;
    std::ifstream lines(path);
    for (std::string line; std::getline(lines, line);) {
        found += line.find(part) != std::string::npos ? line + "\n" : "";
    }
    return found;
}

std::set<std::string> Matches(const std::string& text, const std::string& pattern) {
    std::set<std::string> found;
    const std::regex regex(pattern);
    for (std::sregex_iterator match(text.begin(), text.end(), regex), end; match != end; ++match) {
        found.insert((*match)[1]);
    }
    return found;
}

class ProgramsTest : public KernelTest {};

TEST_F(ProgramsTest, CarryAProcessFromTheKernelToTheUser) {
    const TempDir temp;
    const TempDir files;
    ASSERT_EQ(mount("none", temp.path().c_str(), "cgroup2", 0, nullptr), 0) << strerror(errno);
    const std::string group = "tesu-test-" + std::to_string(getpid());
    temp.makeFolder(group);

    EXPECT_THAT(OutputOf({TESUBPFLOAD_PATH, "--ring-size", "32M"}), Not(HasSubstr("left out")));
    ChildProcess daemon(Redirected("2>" + files.path("log"), DaemonOn61()));
    ASSERT_TRUE(daemon.waitForOutput(std::string("serving on @") + SERVICE_SOCKET_NAME + "\n"));
    EXPECT_THAT(OutputOf({TESUBPFD_PATH}, 3), HasSubstr("another daemon runs already"));
    for (const RingIndex ring : {RING_CORE, RING_GPL}) {
        ASSERT_TRUE(WaitUntil([&] { return IsEnabled(ring); }));
    }
    ChildProcess watch(Redirected(">" + files.path("events"),
                                  {TESUBPF_PATH, "watch", "--json", "--type",
                                   "fork,exit,cgroup,fds,created,exited,threads,memory"}));
    ASSERT_TRUE(watch.waitForError("connected")) << watch.error;

    ChildProcess workload({TESUBPF_WORKLOAD_PATH, "life", temp.path(group)});
    ASSERT_TRUE(workload.waitForOutput("done")) << workload.error;
    const std::string pid = std::to_string(workload.pid());
    for (const unsigned options : {0, 1, 2, 3}) {
        const bool hasKernelTasks = (options & 1) == 0;
        const bool hasOldFigures = (options & 2) != 0;
        std::vector<std::string> command = {TESUBPF_PATH, "tasks"};
        command.resize(2 + !hasKernelTasks, "--no-kernel");
        command.resize(command.size() + hasOldFigures, "--all-columns");
        const std::string text = OutputOf(command);
        const auto rows = std::count(text.begin(), text.end(), '\n') - 2;
        const auto count = std::stol(text.substr(text.find("count: ") + 7));
        EXPECT_THAT(text, HasSubstr(" " + pid + " "));
        EXPECT_EQ(rows, hasKernelTasks ? count : std::min<long>(rows, count - 1));
        EXPECT_EQ(text.find("oldThreadNum") != std::string::npos, hasOldFigures);
    }
    EXPECT_THAT(OutputOf({TESUBPF_PATH, "counters"}), HasSubstr("EventCount"));
    EXPECT_THAT(OutputOf({TESUBPF_PATH, "top", "--batch", "--seconds", "0.5"}),
                HasSubstr(" " + pid + " "));

    workload.sendSignal(SIGKILL);
    EXPECT_TRUE(workload.waitForExit().has_value());
    std::vector<std::string> expected = {
        "\"type\":2,.*\"ppid\":PID,.*\"task_type_name\":\"process\"",
        "\"type\":2,.*\"pid\":PID,.*\"task_type_name\":\"thread\"",
        "\"type\":5,.*\"tid\":PID,.*\"path\":\"/" + group + "\"",
        "\"type\":50001,.*\"ppid\":PID,",
        "\"type\":50003,.*\"pid\":PID,",
        "\"type\":50004,.*\"pid\":PID,",
        "\"type\":3,.*\"pid\":PID,.*\"task_type_name\":\"process\"",
        "\"type\":50002,.*\"pid\":PID,"};
    if (std::filesystem::exists(KPROBES)) {
        expected.emplace_back("\"type\":6,.*\"pid\":PID,");
    }
    std::string told;
    EXPECT_TRUE(WaitUntil([&] {
        told = LinesWith(files.path("events"), ":" + pid + ",");
        return told.find("\"type\":50002,") != std::string::npos;
    }));
    for (std::string pattern : expected) {
        pattern.replace(pattern.find("PID"), 3, pid);
        EXPECT_TRUE(std::regex_search(told, std::regex(pattern))) << pattern << "\n" << told;
    }
    watch.sendSignal(SIGTERM);
    EXPECT_EQ(watch.waitForExit(), 0);
    daemon.sendSignal(SIGTERM);
    EXPECT_EQ(daemon.waitForExit(), 0);
    const std::string log = ReadWholeFile(files.path("log"));
    EXPECT_EQ(Matches(log, "Attach prog START: (.*)").size(), 10U);
    EXPECT_EQ(Matches(log, "Attach .* prog failed: (.*), msg:"), ExpectedUnattached());
    OutputOf({TESUBPFLOAD_PATH, "--unload"});
    EXPECT_FALSE(std::filesystem::exists(PIN_DIR));
    std::filesystem::remove(temp.path(group));
    umount(temp.path().c_str());
}

TEST_F(ProgramsTest, TheDaemonWaitsForThePinsUntilItIsEnded) {
    for (const int signal : {SIGTERM, SIGINT}) {
        ChildProcess daemon({TESUBPFD_PATH});
        ASSERT_TRUE(daemon.waitForError("tesubpfload"));
        EXPECT_FALSE(IsServiceListening(SERVICE_SOCKET_NAME));
        daemon.sendSignal(signal);
        EXPECT_EQ(daemon.waitForExit(), 0) << daemon.error;
        EXPECT_EQ(daemon.output, "");
    }
}

TEST_F(ProgramsTest, SayWhatTheyCannotDo) {
    struct Case {
        std::vector<std::string> command;
        int status;
        const char* message;
    };
    for (const auto& [command, status, message] :
         std::vector<Case>{{{TESUBPFLOAD_PATH, "--ring-size", "5000"}, 2, "power of two"},
                           {{TESUBPFLOAD_PATH, "--unload", "--ring-size", "4096"}, 2, "--help"},
                           {{TESUBPFD_PATH, "--property", "novalue"}, 2, "\"novalue\""},
                           {{TESUBPFD_PATH, "extra"}, 2, "extra"},
                           {{TESUBPFD_PATH, "-p", "sys.tesu_bpf_ready=1", "-p",
                             "persist.sys.stability.bpfframework.disable=1"},
                            4,
                            "disabled"},
                           {{TESUBPF_PATH}, 2, "subcommand"},
                           {{TESUBPF_PATH, "tasks", "--nonsense"}, 2, "--nonsense"},
                           {{TESUBPF_PATH, "watch", "--type", "nonsense"}, 2, "nonsense"},
                           {{TESUBPF_PATH, "tasks"}, 1, "daemon"}}) {
        EXPECT_THAT(OutputOf(command, status), HasSubstr(message));
    }
}

}  // namespace
}  // namespace Tesu::Bpf
