// SPDX-License-Identifier: Apache-2.0
//
// The programs that are installed, together: loader, daemon and client, on the running kernel.
#include <android-base/strings.h>
#include <bpf/bpf.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <functional>
#include <iostream>
#include <map>
#include <regex>
#include <set>
#include <sstream>
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

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

// What stands in the pattern's group wherever it is found, each once and in order; "-": nowhere.
std::string Found(const std::string& text, const std::string& pattern) {
    const std::regex regex(pattern);
    std::set<std::string> found;
    for (std::sregex_iterator each(text.begin(), text.end(), regex), end; each != end; ++each) {
        found.insert((*each)[1]);
    }
    return found.empty() ? "-" : android::base::Join(found, ',');
}

// The running kernel, as it is called in the table of kernels: 6.1-amd64 is 6.1.0-56-amd64.
std::string KernelName() {
    utsname system{};
    uname(&system);
    return std::regex_replace(system.release, std::regex(R"(^(\d+\.\d+).*?-([a-z][a-z0-9]*).*)"),
                              "$1-$2");
}

// What that is expected to have of ours, the middle of its row; "-" for a kernel that has no row.
std::string ExpectedOf(const std::string& kernel) {
    const std::string table = ReadWholeFile(TESUBPF_TEST_DATA "/../system/kernels.txt");
    const std::string row = Found(table, "\n" + kernel + R"( +\S+ +\S+ +\S+ +((?:\S+ +){4}\S+))");
    return std::regex_replace(row, std::regex(" +"), " ");
}

std::string LinesWith(const std::string& text, const std::string& part) {
    std::string found;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        found += line.find(part) != std::string::npos ? line + "\n" : "";
    }
    return found;
}

// The types of events that a life of the workload causes and that came, all that is expected of a
// type; and of memory, if any came.
std::string HeardTypes(const std::string& watched, const std::string& pid) {
    const std::string memory =
        OutputOf({TESUBPF_PATH, "watch", "--json", "--type", "rss", "--count", "1"});
    std::map<int, bool> types = {{1, memory.find("\"type\":1,") != std::string::npos}};
    const std::string events = LinesWith(watched, ":" + pid + ",");
    for (const std::string event :
         {R"(2,.*"ppid":PID,.*"task_type_name":"process")",
          R"(2,.*"pid":PID,.*"task_type_name":"thread")",
          R"(3,.*"pid":PID,.*"task_type_name":"process")", R"(5,.*"tid":PID,.*"path":"/tesu-test-)",
          R"(6,.*"pid":PID,)", R"(50001,.*"ppid":PID,)", R"(50002,.*"pid":PID,)",
          R"(50003,.*"pid":PID,)", R"(50004,.*"pid":PID,)"}) {
        const std::regex pattern("\"type\":" + std::regex_replace(event, std::regex("PID"), pid));
        bool& isHeard = types.try_emplace(std::stoi(event), true).first->second;
        isHeard = isHeard && std::regex_search(events, pattern);
    }
    std::erase_if(types, [](const auto& type) { return !type.second; });
    std::string heard;
    for (const auto& [type, isHeard] : types) {
        heard += (heard.empty() ? "" : ",") + std::to_string(type);
    }
    return heard;
}

class ProgramsTest : public KernelTest {
  protected:
    // Whether a daemon to which nothing is said of the kernel's version attaches both objects.
    static bool hasSecondByDefault() {
        ChildProcess daemon({TESUBPFD_PATH});
        EXPECT_TRUE(WaitUntil([] { return IsEnabled(RING_CORE); })) << daemon.error;
        daemon.sendSignal(SIGTERM);
        EXPECT_EQ(daemon.waitForExit(), 0);
        SetRingFlags(RING_CORE, 0);
        return daemon.error.find("type: enter_dma_buf") != std::string::npos;
    }
};

TEST_F(ProgramsTest, CarryAProcessFromTheKernelToTheUser) {
    const TempDir temp;
    ASSERT_EQ(mount("none", temp.path().c_str(), "cgroup2", 0, nullptr), 0) << strerror(errno);
    const std::string group = "tesu-test-" + std::to_string(getpid());
    std::filesystem::create_directory(temp.path(group));

    const std::string loaded =
        OutputOf({TESUBPFLOAD_PATH, "--ring-size", std::to_string(LARGE_RING_BYTES)});
    const bool isSecondOn = hasSecondByDefault();
    ChildProcess daemon(PatientDaemon({"--property", "ro.kernel.version=6.1"}));
    ASSERT_TRUE(daemon.waitForOutput(std::string("serving on @") + SERVICE_SOCKET_NAME + "\n"));
    EXPECT_THAT(OutputOf({TESUBPFD_PATH}, 3), HasSubstr("another daemon runs already"));
    for (const RingIndex ring : {RING_CORE, RING_GPL}) {
        ASSERT_TRUE(WaitUntil([&] { return IsEnabled(ring); })) << daemon.error;
    }
    // Read without a pause: a busy machine has many events.
    ChildProcess watch({TESUBPF_PATH, "watch", "--json", "--type",
                        "fork,exit,cgroup,fds,created,exited,threads,memory"});
    ASSERT_TRUE(watch.waitForError("connected")) << watch.error;
    ChildProcess workload({TESUBPF_WORKLOAD_PATH, "life", temp.path(group)});
    const std::string pid = std::to_string(workload.pid());
    const std::string last = "\"pid\":" + pid + ",\"comm\":\"tesubpf_test_wo\"}";
    EXPECT_TRUE(watch.waitForOutput(last)) << workload.error;
    watch.sendSignal(SIGTERM);
    EXPECT_EQ(watch.waitForExit(), 0);
    const std::string row =
        std::string(loaded.find("from the kernel's type") != std::string::npos ? "types"
                                                                               : "guessed") +
        (isSecondOn ? " on " : " off ") + Found(loaded, R"(program (\S+): left out)") + " " +
        Found(OutputOf({TESUBPF_PATH, "status"}), R"(not attached: (\S+))") + " " +
        HeardTypes(watch.output, pid);
    const std::string expected = ExpectedOf(KernelName());
    std::cout << "ROW " << KernelName() << " " << row << "\n";
    EXPECT_TRUE(row == expected || expected == "-") << "not as in its row: " << expected << "\n"
                                                    << loaded;

    const std::string own = " " + std::to_string(getpid()) + " ";
    EXPECT_THAT(OutputOf({TESUBPF_PATH, "tasks", "--no-kernel"}),
                AllOf(HasSubstr(own), Not(HasSubstr("\nkthreadd ")), Not(HasSubstr("oldThread"))));
    EXPECT_THAT(OutputOf({TESUBPF_PATH, "tasks", "--all-columns"}),
                AllOf(HasSubstr(own), HasSubstr("\nkthreadd "), HasSubstr("oldThread")));
    EXPECT_THAT(OutputOf({TESUBPF_PATH, "counters"}), HasSubstr("EventCount"));
    // As on a machine that takes longer than that for its first frame.
    EXPECT_THAT(OutputOf({TESUBPF_PATH, "top", "--batch", "--seconds", "0.001"}), HasSubstr(own));

    daemon.sendSignal(SIGTERM);
    EXPECT_EQ(daemon.waitForExit(), 0);
    OutputOf({TESUBPFLOAD_PATH, "--unload"});
    EXPECT_FALSE(std::filesystem::exists(PIN_DIR));
    std::filesystem::remove(temp.path(group));
    umount(temp.path().c_str());
    if (expected == "-") {
        GTEST_SKIP() << "kernels.txt has no row to compare with: " << KernelName() << " " << row;
    }
}

TEST_F(ProgramsTest, TheDaemonWaitsForThePinsUntilItIsEnded) {
    ChildProcess daemon({TESUBPFD_PATH});
    ASSERT_TRUE(daemon.waitForError("tesubpfload"));
    EXPECT_FALSE(IsServiceListening(SERVICE_SOCKET_NAME));
    daemon.sendSignal(SIGINT);
    EXPECT_EQ(daemon.waitForExit(), 0) << daemon.error;
    EXPECT_EQ(daemon.output, "");
}

TEST_F(ProgramsTest, TheDaemonServesWhereNobodyReadsItsLog) {
    OutputOf({TESUBPFLOAD_PATH, "--ring-size", "1048576"});
    int log[2] = {-1, -1};
    ASSERT_EQ(pipe2(log, O_CLOEXEC), 0);
    const int size = fcntl(log[1], F_GETPIPE_SZ);
    std::string filling(static_cast<size_t>(size), ' ');
    ASSERT_EQ(write(log[1], filling.data(), filling.size()), size);
    const std::string writer =
        "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(log[1]);
    ChildProcess daemon({"/bin/sh", "-c", "exec " TESUBPFD_PATH " 2>" + writer});
    EXPECT_TRUE(WaitUntil([] { return IsEnabled(RING_CORE); }));
    EXPECT_THAT(OutputOf({TESUBPF_PATH, "status"}), HasSubstr("running"));
    ASSERT_EQ(read(log[0], filling.data(), filling.size()), size);
    daemon.sendSignal(SIGTERM);
    EXPECT_EQ(daemon.waitForExit(), 0);
    close(log[1]);
    filling.resize(static_cast<size_t>(read(log[0], filling.data(), filling.size())));
    EXPECT_THAT(filling, HasSubstr("were left out before this one"));
    close(log[0]);
}

TEST_F(ProgramsTest, TheDaemonEndsWhereItWouldServeSilence) {
    const auto reload = [] {
        OutputOf({TESUBPFLOAD_PATH, "--unload"});
        OutputOf({TESUBPFLOAD_PATH, "--ring-size", "1048576"});
    };
    const auto expectEnd = [](int status, const std::string& reason,
                              const std::function<void()>& change = {},
                              std::vector<std::string> command = {}) {
        SetRingFlags(RING_CORE, 0);
        command.insert(command.end(), {TESUBPFD_PATH, "-p", "sys.tesu_bpf_watch_pins=1"});
        ChildProcess daemon(command);
        if (change) {
            ASSERT_TRUE(WaitUntil([] { return IsEnabled(RING_CORE); })) << daemon.error;
            change();
        }
        EXPECT_EQ(daemon.waitForExit(), status);
        EXPECT_THAT(daemon.error, HasSubstr(reason));
    };
    reload();
    expectEnd(5, "other eBPF programs were pinned", reload);
    expectEnd(5, "not read any more", [] {
        // What others report between them would begin the count of errors anew.
        SetRingFlags(RING_CORE, 0);
        const RawEventHeader bad = {.type = 99, .padding = 0, .time = 0};
        RecordInjector(RING_CORE).inject(&bad, sizeof(bad), 6);
    });
    expectEnd(1, "no right to use eBPF", {}, {"setpriv", "--bounding-set", "-all"});
    for (const char* const tracing : {"/sys/kernel/tracing", "/sys/kernel/debug"}) {
        mount("none", tracing, "tmpfs", 0, nullptr);
    }
    expectEnd(1, "no program could be attached");
    // Each is like the one that it replaces, but for the size of a value or the type.
    for (const auto& [name, other] : {std::pair(OPEN_FD_MAP, DMABUF_SIZE_MAP),
                                      {CORE_CURRENT_RING_MAP, CORE_POLLED_MAP},
                                      {CORE_RING_MAP, nullptr}}) {
        const std::string pin = std::string(PIN_DIR) + "/" + name;
        unlink(pin.c_str());
        if (other != nullptr) {
            ASSERT_EQ(bpf_obj_pin(OpenPin(other).get(), pin.c_str()), 0);
        }
        expectEnd(1, pin + (other == nullptr ? " is missing" : " is of another build"));
    }
    while (umount("/sys/fs/bpf") == 0) {  // one may lie over another
    }
    expectEnd(1, "no bpf file system");
}

TEST_F(ProgramsTest, SayWhatTheyCannotDo) {
    for (const std::string size : {"12288", "2048", "4294967296"}) {
        EXPECT_THAT(OutputOf({TESUBPFLOAD_PATH, "--ring-size", size}, 2),
                    HasSubstr("power of two"));
    }
    EXPECT_THAT(OutputOf({TESUBPFD_PATH, "--property", "novalue"}, 2), HasSubstr("\"novalue\""));
    EXPECT_THAT(OutputOf({TESUBPFD_PATH, "-p", "sys.tesu_bpf_ready=1", "-p",
                          "persist.sys.stability.bpfframework.disable=1"},
                         4),
                HasSubstr("disabled"));
    EXPECT_THAT(OutputOf({TESUBPF_PATH, "watch", "--type", "nonsense"}, 2), HasSubstr("nonsense"));
    EXPECT_THAT(OutputOf({TESUBPF_PATH, "tasks"}, 1), HasSubstr("daemon"));
}

}  // namespace
}  // namespace Tesu::Bpf
