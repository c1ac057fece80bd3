// SPDX-License-Identifier: Apache-2.0
//
// Dumps by signal, in a root directory of the test's own: their paths are fixed.
#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "diag/tesu_bpf_state.h"
#include "service/dump_requests.h"
#include "task/tesu_bpf_task_manager.h"
#include "tests/support/temp_dir.h"
#include "tests/support/wait_until.h"

// The leak check at the end of a process needs /proc, which the test's root directory lacks.
static bool leakCheckIsOff = false;
extern "C" __attribute__((visibility("default"))) int __lsan_is_turned_off() {
    return leakCheckIsOff ? 1 : 0;
}

namespace Tesu::Bpf {
namespace {

// A task dump that was read whole: the count of its title and its rows, all of one length. Nothing
// for a piece of one.
std::optional<std::pair<long, long>> ReadTable(const std::string& text) {
    const std::string title = "============ DUMP ALL TESU TASKS INFO (count: ";
    std::istringstream lines(text);
    std::string line;
    std::getline(lines, line);
    if (!text.ends_with('\n') || !line.starts_with(title)) {
        return std::nullopt;
    }
    const long count = std::stol(line.substr(title.size()));
    std::getline(lines, line);
    long rows = 0;
    for (size_t length = 0; std::getline(lines, line); length = line.size()) {
        if (++rows > 1 && line.size() != length) {
            return std::nullopt;
        }
    }
    return std::pair(count, rows);
}

class DumpRequestsTest : public testing::Test {
  protected:
    void SetUp() override {
        if (geteuid() != 0) {
            GTEST_SKIP() << "needs root for a root directory of its own";
        }
        folder.makeFolder("data/tesulog/stability");
        folder.makeFolder("tmp");
        ASSERT_EQ(chdir("/"), 0);
        ASSERT_EQ(chroot(folder.path().c_str()), 0);
    }
    void TearDown() override {
        if (geteuid() == 0) {
            ASSERT_EQ(fchdir(realRoot.get()), 0);
            ASSERT_EQ(chroot("."), 0);
        }
    }

    void addTask(int32_t pid, int64_t size) {
        std::lock_guard lock(TesuTaskManager::tesuTaskManagerLock);
        TesuTask task;
        task.pid = pid;
        std::memcpy(task.comm, "sixteen chars ab", sizeof(task.comm));
        task.rssAnonSize = size;
        TesuTaskManager::GetInstance()->AddTesuTask(pid, task);
    }
    void deleteTask(int32_t pid) {
        std::lock_guard lock(TesuTaskManager::tesuTaskManagerLock);
        TesuTaskManager::GetInstance()->DelTesuTask(pid);
    }
    static std::string tableText() {
        return ReadWholeFile(TesuTaskManager::TESUTASK_DUMP_TEMPLATE);
    }
    static std::string stateText() {
        return ReadWholeFile(TesuBpfDataState::TESUTASK_DUMP_TEMPLATE);
    }

    // Opened before the root changes.
    const android::base::unique_fd realRoot{open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
    const android::base::unique_fd tasks{
        open("/proc/self/task", O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
    TempDir folder;
};

TEST_F(DumpRequestsTest, EachSignalWritesItsDump) {
    addTask(1, 4096);
    addTask(2, 0);
    TesuBpfDataState::GetInstance()->RecordEvent(4, 3);
    InstallDumpSignalHandlers();
    struct Case {
        int signal;
        long rows;
        bool oldColumns;
    };
    for (const Case& each :
         {Case{51, 2, true}, Case{52, 1, true}, Case{53, 2, false}, Case{54, 1, false}}) {
        unlink(TesuTaskManager::TESUTASK_DUMP_TEMPLATE.c_str());
        errno = EXDEV;
        raise(each.signal);
        EXPECT_EQ(errno, EXDEV) << "the interrupted code sees another errno";
        EXPECT_TRUE(WaitUntil([&] { return ReadTable(tableText()) == std::pair(2L, each.rows); }))
            << tableText();
        EXPECT_EQ(tableText().find("oldThreadNum") != std::string::npos, each.oldColumns);
    }
    raise(50);
    EXPECT_TRUE(WaitUntil([&] {
        return stateText().find("\r\n3, 0, 0, 0, 0, 3,") != std::string::npos;
    })) << stateText();
}

TEST_F(DumpRequestsTest, OneThreadOfItsOwnThatTakesNoSignals) {
    std::thread([] {}).join();  // a sanitizer makes its own thread with the first one
    ASSERT_EQ(fchdir(tasks.get()), 0);
    const auto threads = [] {
        const std::filesystem::directory_iterator entries(".");
        return std::vector<std::filesystem::path>(begin(entries), end(entries));
    };
    usleep(100'000);  // a thread that was joined may still be listed for a moment
    const size_t before = threads().size();
    std::thread(InstallDumpSignalHandlers).join();
    InstallDumpSignalHandlers();
    EXPECT_TRUE(WaitUntil([&] { return threads().size() == before + 1; })) << threads().size();
    std::string status;
    EXPECT_TRUE(WaitUntil([&] {
        for (const auto& thread : threads()) {
            status = ReadWholeFile(thread / "status");
            if (status.starts_with("Name:\tBpfServiceDump\n")) {
                return true;
            }
        }
        return false;
    }));
    const auto blocked = std::stoull(status.substr(status.find("SigBlk:\t") + 8), nullptr, 16);
    for (const int signal : {SIGTERM, SIGINT, SIGCHLD, 50, 54}) {
        EXPECT_NE(blocked & (1ULL << (signal - 1)), 0U) << signal;
    }
    EXPECT_EQ(chdir("/"), 0);
}

// Signals strike threads that hold the table's lock. Each is followed by a dump that knows what was
// there when it was sent, and no file is ever left in pieces.
TEST_F(DumpRequestsTest, UnderLoadEveryFileIsWholeAndUpToDate) {
    InstallDumpSignalHandlers();
    for (int32_t pid = 1; pid <= 200; ++pid) {
        addTask(pid, pid);
    }
    std::atomic<bool> done{false};
    std::array<std::thread, 2> writers;
    for (std::thread& writer : writers) {
        writer = std::thread([&, first = &writer == &writers[0] ? 1000 : 2000] {
            for (int32_t i = 0; !done; ++i) {
                addTask(first + i % 100, i % 1000);
                deleteTask(first + (i + 50) % 100);
                TesuBpfDataState::GetInstance()->RecordEvent(i % 8, 1);
            }
        });
    }
    for (int round = 0; round < 60 && !HasFailure(); ++round) {
        const int32_t newPid = 10000 + round;
        addTask(newPid, 1 << 20);
        const int signal = 51 + round % 4;
        for (std::thread& writer : writers) {
            pthread_kill(writer.native_handle(), 50);
            pthread_kill(writer.native_handle(), signal);
        }
        EXPECT_TRUE(WaitUntil([&] {
            const std::string text = tableText();
            const auto table = ReadTable(text);
            return table && (table->first == table->second || signal % 2 == 0) &&
                   text.find(" " + std::to_string(newPid) + " ") != std::string::npos;
        })) << tableText();
        EXPECT_TRUE(WaitUntil([] { return stateText().ends_with("\r\n"); })) << stateText();
    }
    done = true;
    for (std::thread& writer : writers) {
        writer.join();
    }
}

TEST_F(DumpRequestsTest, TheLastKindAskedForStays) {
    addTask(1, 0);
    InstallDumpSignalHandlers();
    for (int round = 0; round < 50 && !HasFailure(); ++round) {
        unlink(TesuTaskManager::TESUTASK_DUMP_TEMPLATE.c_str());
        for (const int signal : {54, 53, 51}) {
            raise(signal);
        }
        EXPECT_TRUE(WaitUntil([] {
            return tableText().find("oldThreadNum") != std::string::npos &&
                   ReadTable(tableText()) == std::pair(1L, 1L);
        })) << tableText();
        // If one of the three were still to come, it would replace this.
        raise(52);
        EXPECT_TRUE(WaitUntil([] { return ReadTable(tableText()) == std::pair(1L, 0L); }));
    }
}

// The thread is in the middle of dumps when the process ends.
TEST_F(DumpRequestsTest, ProcessEndsCleanlyUnderRequests) {
    EXPECT_EXIT(
        {
            alarm(60);
            leakCheckIsOff = true;
            for (int32_t pid = 1; pid <= 2000; ++pid) {
                addTask(pid, pid);
            }
            InstallDumpSignalHandlers();
            std::thread([] {
                while (true) {
                    raise(50);
                    raise(51);
                }
            }).detach();
            WaitUntil([] { return !tableText().empty(); });
            std::exit(0);
        },
        testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace Tesu::Bpf
