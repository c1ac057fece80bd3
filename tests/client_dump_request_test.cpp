// SPDX-License-Identifier: Apache-2.0
//
// Asking a daemon for its dumps: a child process plays the daemon, with real signals and files.
#include <android-base/unique_fd.h>
#include <cutils/sockets.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "client/dump_request.h"
#include "client/dump_text.h"
#include "tests/support/child_process.h"
#include "tests/support/test_service.h"
#include "tests/support/wait_until.h"
#include "util/termination_signals.h"

namespace Tesu::Bpf {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;

const std::string TITLE =
    "============ DUMP ALL TESU TASKS INFO (count: 2, time: 1795256058) ============\n";
const std::string NORMAL_COLUMNS =
    "comm               pid         ppid        threadNum   mmId        rssAnonSize         "
    "rssFileSize         rssShmemSize        rssSwapSize         initTimeStamp       \n";
const std::string FULL_COLUMNS =
    "comm               pid         ppid        threadNum   oldThreadNum mmId        "
    "rssAnonSize         initTimeStamp       \n";

std::string TaskRow(const std::string& name) {
    return name + "   4711        1           1           1000               7 KB" +
           "                8 KB                0 KB                0 KB          1795255709\n";
}

TEST(DumpText, ATaskDumpIsWholeWithTheRowsThatItsTitleCounts) {
    const std::string whole = TITLE + NORMAL_COLUMNS + TaskRow("media") + TaskRow("a\nb KB\n 17");
    EXPECT_TRUE(IsWholeDump(DumpKind::TASKS_NORMAL, whole));
    for (size_t size = 0; size < whole.size(); ++size) {
        ASSERT_FALSE(IsWholeDump(DumpKind::TASKS_NORMAL, whole.substr(0, size))) << size;
    }
    EXPECT_FALSE(IsWholeDump(DumpKind::TASKS_NORMAL, whole + TaskRow("third")));
    EXPECT_FALSE(IsWholeDump(DumpKind::TASKS_FULL, whole));
    EXPECT_FALSE(IsWholeDump(DumpKind::COUNTERS, whole));
    EXPECT_TRUE(IsWholeDump(DumpKind::TASKS_FULL,
                            TITLE + FULL_COLUMNS + TaskRow("media") + TaskRow("other")));

    // Without kernel tasks there may be fewer rows, but no part of one.
    const std::string fewer = TITLE + NORMAL_COLUMNS + TaskRow("me\ndia");
    EXPECT_TRUE(IsWholeDump(DumpKind::TASKS_NORMAL_NO_KERNEL, fewer));
    EXPECT_TRUE(IsWholeDump(DumpKind::TASKS_NORMAL_NO_KERNEL, TITLE + NORMAL_COLUMNS));
    EXPECT_FALSE(IsWholeDump(DumpKind::TASKS_NORMAL_NO_KERNEL, TITLE));
    EXPECT_FALSE(IsWholeDump(DumpKind::TASKS_FULL_NO_KERNEL, fewer));
    const size_t rowStart = (TITLE + NORMAL_COLUMNS).size();
    for (size_t size = rowStart + 1; size < fewer.size(); ++size) {
        ASSERT_FALSE(IsWholeDump(DumpKind::TASKS_NORMAL_NO_KERNEL, fewer.substr(0, size))) << size;
    }
}

TEST(DumpText, ACounterDumpIsWholeWithTheSecondsThatItsHeadNames) {
    const std::string columns = "EventCount, tesu_task_init, kmem_rss_info, PollCount, ";
    const std::string row = "3, 1, 2, 9, \r\n";
    // Seconds 5 to 7: the oldest number in the upper half.
    const std::string whole =
        columns + std::to_string((5ULL << 32) + 7) + ", 0 \r\n" + row + row + row;
    EXPECT_TRUE(IsWholeDump(DumpKind::COUNTERS, whole));
    for (size_t size = 0; size < whole.size(); ++size) {
        ASSERT_FALSE(IsWholeDump(DumpKind::COUNTERS, whole.substr(0, size))) << size;
    }
    EXPECT_FALSE(IsWholeDump(DumpKind::COUNTERS, whole + row));
    EXPECT_TRUE(IsWholeDump(DumpKind::COUNTERS, columns + "0, 0 \r\n" + row));
    EXPECT_TRUE(IsWholeDump(DumpKind::COUNTERS, columns + std::to_string(9ULL << 32) + ", 0 \r\n"));
    EXPECT_FALSE(IsWholeDump(DumpKind::COUNTERS, columns + "many, 0 \r\n" + row));
}

TEST(DumpText, EscapesWhatWouldActOnATerminalAndKeepsLines) {
    EXPECT_EQ(EscapeDump("a\x1b[2Jb\nc\r\n\rd\n"), "a\\x1b[2Jb\nc\n\\x0dd\n");
    EXPECT_EQ(EscapeDump("no end"), "no end");
    EXPECT_EQ(EscapeDump(""), "");
}

// A process that listens under a name and answers signals as it is told to.
class FakeDaemon {
  public:
    // `onSignal` runs in the child, not in a signal handler.
    FakeDaemon(const std::string& name, const std::vector<int>& caught,
               const std::function<void(int)>& onSignal) {
        int ready[2] = {-1, -1};
        EXPECT_EQ(pipe2(ready, O_CLOEXEC), 0);
        child = fork();
        if (child == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            serve(name, caught, onSignal, ready[1]);
        }
        close(ready[1]);
        char byte = 0;
        EXPECT_EQ(read(ready[0], &byte, 1), 1);
        close(ready[0]);
    }
    ~FakeDaemon() {
        if (isAlive()) {
            kill(child, SIGKILL);
            waitpid(child, nullptr, 0);
        }
    }

    pid_t pid() const { return child; }
    bool isAlive() const { return waitpid(child, nullptr, WNOHANG) == 0; }

  private:
    [[noreturn]] static void serve(const std::string& name, const std::vector<int>& caught,
                                   const std::function<void(int)>& onSignal, int readyFd) {
        sigset_t signals;
        sigemptyset(&signals);
        for (const int signal : caught) {
            sigaddset(&signals, signal);
            std::signal(signal, [](int) {});
        }
        sigprocmask(SIG_BLOCK, &signals, nullptr);
        socket_local_server(name.c_str(), ANDROID_SOCKET_NAMESPACE_ABSTRACT, SOCK_STREAM);
        [[maybe_unused]] const ssize_t written = write(readyFd, "r", 1);
        if (caught.empty()) {
            pause();
        }
        while (true) {
            int signal = 0;
            sigwait(&signals, &signal);
            onSignal(signal);
        }
    }

    pid_t child = -1;
};

class DumpRequestTest : public testing::Test {
  protected:
    DumpRequestTest() {
        char path[] = "/tmp/tesubpf.dump.XXXXXX";
        folder = mkdtemp(path);
        file = folder + "/DUMPTASK_INFO";
    }
    ~DumpRequestTest() override { std::filesystem::remove_all(folder); }

    std::optional<std::string> request(const FakeDaemon& daemon,
                                       DumpKind kind = DumpKind::TASKS_NORMAL) {
        return RequestDump(daemon.pid(), kind, folder, signals, &error);
    }

    const TerminationSignals signals;
    const std::string name = TestService::uniqueSocketName();
    const std::string whole = TITLE + NORMAL_COLUMNS + TaskRow("one") + TaskRow("two");
    std::string folder;
    std::string file;
    std::string error;
};

void Append(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::app) << text;
}

TEST_F(DumpRequestTest, WaitsUntilANewFileIsWhole) {
    // What lies there is whole too, but old.
    Append(file, TITLE + NORMAL_COLUMNS + TaskRow("old") + TaskRow("old"));
    const FakeDaemon daemon(name, {53}, [this](int /*signal*/) {
        usleep(50'000);
        unlink(file.c_str());
        usleep(50'000);
        // Each part ends at the end of a line, so that only the count tells.
        for (const std::string& part : {TITLE, NORMAL_COLUMNS, TaskRow("one"), TaskRow("two")}) {
            Append(file, part);
            usleep(60'000);
        }
    });
    EXPECT_EQ(FindServiceProcess(name, &error), daemon.pid());
    EXPECT_EQ(request(daemon), whole) << error;
}

TEST_F(DumpRequestTest, TakesNoDumpOfAnotherKind) {
    const FakeDaemon daemon(name, {51}, [this](int /*signal*/) {
        Append(file, whole);  // somebody else's
        usleep(100'000);
        unlink(file.c_str());
        Append(file, TITLE + FULL_COLUMNS + TaskRow("one") + TaskRow("two"));
    });
    EXPECT_THAT(request(daemon, DumpKind::TASKS_FULL).value_or(error), HasSubstr(FULL_COLUMNS));
}

TEST_F(DumpRequestTest, NeverSendsASignalThatWouldEndTheDaemon) {
    if (!EmulatorCommand().empty()) {
        GTEST_SKIP() << "the emulator itself handles every signal";
    }
    const FakeDaemon daemon(name, {52}, [](int /*signal*/) {});
    for (const DumpKind kind : {DumpKind::COUNTERS, DumpKind::TASKS_FULL, DumpKind::TASKS_NORMAL,
                                DumpKind::TASKS_NORMAL_NO_KERNEL}) {
        EXPECT_FALSE(request(daemon, kind).has_value());
        EXPECT_THAT(error, HasSubstr("not ready"));
    }
    EXPECT_TRUE(daemon.isAlive());
}

TEST_F(DumpRequestTest, SaysWhyThereIsNoDump) {
    {
        // Nobody waits for the child, so that nothing is left of it.
        std::signal(SIGCHLD, SIG_IGN);
        const FakeDaemon daemon(name, {53}, [](int /*signal*/) { _exit(0); });
        EXPECT_FALSE(request(daemon).has_value());
        EXPECT_THAT(error, HasSubstr("has ended"));
        std::signal(SIGCHLD, SIG_DFL);
    }
    Append(file, whole);
    const FakeDaemon daemon(name, {53}, [this](int /*signal*/) {
        unlink(file.c_str());
        Append(file, whole.substr(0, whole.size() - 1));
    });
    EXPECT_FALSE(request(daemon).has_value());
    EXPECT_THAT(error, HasSubstr("no whole " + file));

    folder += "/none/none";
    EXPECT_FALSE(request(daemon).has_value());
    EXPECT_THAT(error, HasSubstr("/none does not exist"));
    EXPECT_FALSE(FindServiceProcess(name + ".absent", &error).has_value());
    EXPECT_THAT(error, HasSubstr("no daemon is listening on @" + name + ".absent"));
}

TEST_F(DumpRequestTest, EndsOnASignal) {
    const FakeDaemon daemon(name, {53}, [](int /*signal*/) {});
    kill(getpid(), SIGTERM);
    EXPECT_FALSE(request(daemon).has_value());
    EXPECT_THAT(error, IsEmpty());
}

TEST_F(DumpRequestTest, TheCommandsFailPlainlyWithoutADaemon) {
    for (const char* const command : {"tasks", "counters"}) {
        ChildProcess client({TESUBPF_PATH, command, "--socket", name});
        EXPECT_EQ(client.waitForExit(), 1);
        EXPECT_EQ(client.error, "tesubpf: no daemon is listening on @" + name + "\n");
        EXPECT_THAT(client.output, IsEmpty());
    }
}

}  // namespace
}  // namespace Tesu::Bpf
