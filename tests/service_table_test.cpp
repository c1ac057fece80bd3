// SPDX-License-Identifier: Apache-2.0
//
// What the running service knows and tells, compared with what the machine does.
#include <android-base/file.h>
#include <android-base/unique_fd.h>
#include <bpf/bpf.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "diag/tesu_bpf_state.h"
#include "proc/process_snapshot.h"
#include "records/notification.h"
#include "records/raw_event.h"
#include "records/read_prefix.h"
#include "service/lost_records.h"
#include "task/tesu_bpf_task_manager.h"
#include "tests/support/child_process.h"
#include "tests/support/dump_folders.h"
#include "tests/support/running_service.h"
#include "tests/support/storm.h"
#include "tests/support/table_check.h"
#include "tests/support/temp_dir.h"
#include "tests/support/wait_until.h"
#include "tests/support/wire_client.h"

namespace Tesu::Bpf {
namespace {

using std::chrono::milliseconds;

// A storm takes a while, longer where sanitizers watch.
constexpr std::chrono::seconds STORM_PATIENCE{150};

// The default, or what a service under a sanitizer needs to keep up.
constexpr uint32_t RING_BYTES = uint32_t{TESUBPF_STORM_RING_MIB} << 20;

// Its main thread's name, which those that it forks are given.
std::string OwnName() {
    return ProcReader().read(getpid())->name;
}

std::vector<pid_t> ChildrenOf(pid_t parent) {
    std::vector<ProcessSnapshot> processes;
    ProcReader().readAll(&processes);
    std::vector<pid_t> children;
    for (const ProcessSnapshot& process : processes) {
        if (process.ppid == parent && !process.isEnding) {
            children.push_back(process.pid);
        }
    }
    return children;
}

template <class T>
T As(const WireClient::Package& package) {
    return ReadPrefix<T>(package.body.data(), static_cast<int64_t>(package.body.size()));
}

class ServiceTableTest : public RunningServiceTest {
  protected:
    static std::unique_ptr<ChildProcess> runStorm(const std::string& kind, int number) {
        auto storm = std::make_unique<ChildProcess>(
            std::vector<std::string>{TESUBPF_STORM_PATH, kind, std::to_string(number)});
        EXPECT_TRUE(storm->waitForOutput("done", STORM_PATIENCE)) << kind << storm->error;
        return storm;
    }

    // Whether the table comes to equal /proc; what comes and goes meanwhile is given time.
    void expectTableEqualsProc(const KnownProcesses& known) {
        std::string differences;
        EXPECT_TRUE(WaitUntil([&] {
            differences = CompareTableWithProc(known);
            return differences.empty();
        })) << differences;
        const auto status = OpenPinnedMap(PinnedRing::CORE, "ringbuf_status");
        EXPECT_EQ(ReadLostRecords(status.get()), 0U);
    }

    // The file as it is now must be whole. False when there is none just now.
    static bool isWrittenWhole(const std::string& path) {
        const android::base::unique_fd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
        std::string text;
        if (!fd.ok() || !android::base::ReadFdToString(fd.get(), &text)) {
            return false;
        }
        EXPECT_TRUE(text.ends_with('\n')) << text;
        return true;
    }

    TempDir temp;
    const DumpFolders folders{TesuTaskManager::TESUTASK_DUMP_PATH};
};

TEST_F(ServiceTableTest, EqualsProcAfterStorms) {
    const std::string ownName = OwnName();
    ChildProcess idle({"/bin/sleep", "600"});
    ASSERT_TRUE(WaitUntil([&] { return ProcReader().read(idle.pid())->name == "sleep"; }));
    ChildProcess zombie({"/bin/true"});
    ASSERT_TRUE(WaitUntil([&] { return ProcReader().read(zombie.pid())->isEnding; }));
    ASSERT_NO_FATAL_FAILURE(startService(RING_BYTES));
    KnownProcesses known = {{idle.pid(), "sleep"}};
    expectTableEqualsProc(known);

    runStorm("processes", TESUBPF_STORM_PROCESSES);
    expectTableEqualsProc(known);

    const auto threads = runStorm("threads", TESUBPF_STORM_THREADS);
    known[threads->pid()] = ownName;
    expectTableEqualsProc(known);

    // Their names are those of the fork, also of those that have become another program.
    const auto children = runStorm("children", TESUBPF_STORM_CHILDREN);
    known[children->pid()] = ownName;
    const std::vector<pid_t> staying = ChildrenOf(children->pid());
    EXPECT_EQ(staying.size(), size_t{TESUBPF_STORM_CHILDREN} * 2 / 3);
    for (const pid_t child : staying) {
        known[child] = ProcReader().read(children->pid())->name;
    }
    expectTableEqualsProc(known);

    for (const auto* storm : {threads.get(), children.get()}) {
        storm->sendSignal(SIGKILL);
    }
    expectTableEqualsProc({{idle.pid(), "sleep"}});
}

TEST_F(ServiceTableTest, NotifiesOfWhatAProcessDoes) {
    ASSERT_NO_FATAL_FAILURE(startService(RING_BYTES));
    WireClient client;
    ASSERT_TRUE(client.connectTo(SOCKET));
    for (const NotificationType type : {NOTIFICATION_PROCESS_CREATED, NOTIFICATION_PROCESS_EXITED,
                                        NOTIFICATION_THREAD_COUNT, NOTIFICATION_MEMORY}) {
        ASSERT_EQ(client.subscribe(static_cast<int32_t>(type)), 0);
    }
    constexpr int WAIT_SECONDS = 4;  // a process is reported when it is three seconds old
    ChildProcess storm({TESUBPF_STORM_PATH, "grow", std::to_string(WAIT_SECONDS)});
    ASSERT_TRUE(storm.waitForOutput("done")) << storm.error;
    storm.sendSignal(SIGKILL);
    ASSERT_TRUE(storm.waitForExit().has_value());

    int created = 0;
    std::vector<ThreadCountNotification> threads;
    std::vector<MemoryNotification> memory;
    for (bool hasExited = false; !hasExited;) {
        const auto package = client.next();
        ASSERT_TRUE(package.has_value());
        const auto head = As<ProcessExitedNotification>(*package);  // the shortest
        if (head.pid != storm.pid()) {
            continue;
        }
        switch (head.type) {
            case NOTIFICATION_PROCESS_CREATED:
                EXPECT_EQ(As<ProcessCreatedNotification>(*package).ppid, getpid());
                ++created;
                break;
            case NOTIFICATION_THREAD_COUNT:
                threads.push_back(As<ThreadCountNotification>(*package));
                break;
            case NOTIFICATION_MEMORY:
                memory.push_back(As<MemoryNotification>(*package));
                break;
            default:
                hasExited = true;
        }
    }
    EXPECT_EQ(created, 1);
    ASSERT_FALSE(threads.empty());
    EXPECT_EQ(threads[0].threadNum - threads[0].oldThreadNum, 11);
    ASSERT_FALSE(memory.empty());
    int64_t grown = 0;
    for (const MemoryNotification& change : memory) {
        grown = std::max(grown, change.rssAnonSize - memory[0].rssAnonOldSize);
    }
    EXPECT_GE(grown, static_cast<int64_t>(GROWN_BYTES));
}

TEST_F(ServiceTableTest, SeedsKernelMapsWithWhatIsThere) {
    ChildProcess idle({TESUBPF_STORM_PATH, "open", "37"});
    ASSERT_TRUE(idle.waitForOutput("done")) << idle.error;
    const std::string proc = "/proc/" + std::to_string(idle.pid());
    temp.write("maps",
               "1000-2000 rw-s 100000000 00:0a 4242 /dmabuf:\n"
               "4000-7000 rw-s 100000000 00:0a 4243 /dmabuf:gpu\n"
               "8000-9000 rw-s 00000000 00:0a 4244 /dmabuf:my gpu\n");
    ASSERT_EQ(mount(temp.path("maps").c_str(), (proc + "/maps").c_str(), nullptr, MS_BIND, nullptr),
              0);
    ASSERT_NO_FATAL_FAILURE(startService(RING_BYTES, "6.1"));

    const auto fds = OpenPinnedMap(PinnedRing::CORE, "open_fd_caller_map");
    const auto buffers = OpenPinnedMap(PinnedRing::GPL, "dmabuf_allocate_map");
    const auto totals = OpenPinnedMap(PinnedRing::GPL, "dmabuf_size_map");
    const int32_t pid = idle.pid();
    OpenFdCaller caller{};
    ASSERT_TRUE(WaitUntil([&] { return bpf_map_lookup_elem(fds.get(), &pid, &caller) == 0; }));
    const auto entries = std::filesystem::directory_iterator(proc + "/fd");
    const auto count = static_cast<uint64_t>(std::distance(begin(entries), end(entries)));
    EXPECT_GE(count, 40U);
    EXPECT_EQ(caller.openFds, count);
    EXPECT_EQ(caller.reportedFds, count);
    EXPECT_EQ(caller.comm, ProcReader().read(pid)->name);

    int64_t total = 0;
    ASSERT_TRUE(WaitUntil([&] { return bpf_map_lookup_elem(totals.get(), &pid, &total) == 0; }));
    EXPECT_EQ(total, 0x1000 + 0x3000);
    const std::map<uint64_t, int64_t> expected = {{4242, 0x1000}, {4243, 0x3000}};
    for (const auto& [inode, size] : expected) {
        DmabufAllocation allocation{};
        ASSERT_EQ(bpf_map_lookup_elem(buffers.get(), &inode, &allocation), 0) << inode;
        EXPECT_EQ(allocation.pid, pid);
        EXPECT_EQ(allocation.size, size);
    }
    const uint64_t passedOver = 4244;
    DmabufAllocation none{};
    EXPECT_NE(bpf_map_lookup_elem(buffers.get(), &passedOver, &none), 0);
    umount2((proc + "/maps").c_str(), MNT_DETACH);
}

// A thousand signals a second while processes come and go.
TEST_F(ServiceTableTest, DumpsDuringAStormAreWholeAndCostNoEvent) {
    constexpr int SECONDS = 20;
    std::filesystem::create_directories(TesuTaskManager::TESUTASK_DUMP_PATH);
    ASSERT_NO_FATAL_FAILURE(startService(RING_BYTES));
    WireClient client;
    ASSERT_TRUE(client.connectTo(SOCKET));
    ASSERT_EQ(client.subscribe(RAW_EVENT_TASK_CREATE), 0);
    ASSERT_EQ(client.subscribe(RAW_EVENT_TASK_EXIT), 0);
    ChildProcess storm({TESUBPF_STORM_PATH, "seconds", std::to_string(SECONDS)});

    std::atomic<bool> isOver{false};
    int signals = 0;
    std::thread sender([&] {
        for (auto next = std::chrono::steady_clock::now(); !isOver; next += milliseconds(1)) {
            kill(getpid(), 50 + signals++ % 5);
            std::this_thread::sleep_until(next);
        }
    });
    int tables = 0;
    int counters = 0;
    std::thread reader([&] {
        while (!isOver) {
            tables += isWrittenWhole(TesuTaskManager::TESUTASK_DUMP_TEMPLATE);
            counters += isWrittenWhole(TesuBpfDataState::TESUTASK_DUMP_TEMPLATE);
        }
    });

    // Of the storm's children; ids come again.
    std::set<pid_t> living;
    size_t created = 0;
    size_t ended = 0;
    const auto take = [&](const WireClient::Package& package) {
        if (As<RawEventHeader>(package).type == RAW_EVENT_TASK_CREATE) {
            const auto create = As<RawTaskCreateEvent>(package);
            if (create.ppid == storm.pid() && create.taskType == RAW_TASK_PROCESS) {
                EXPECT_TRUE(living.insert(create.pid).second) << create.pid;
                ++created;
            }
        } else {
            const auto exit = As<RawTaskExitEvent>(package);
            if (exit.taskType == RAW_TASK_PROCESS) {
                ended += living.erase(exit.pid);
            }
        }
    };
    while (!storm.waitForOutput("done", milliseconds(10))) {
        while (const auto package = client.next(milliseconds(20))) {
            take(*package);
        }
    }
    isOver = true;
    sender.join();
    reader.join();
    while (const auto package = client.next(milliseconds(500))) {
        take(*package);
    }
    const size_t made = std::strtoul(storm.output.c_str() + std::strlen("done "), nullptr, 10);
    EXPECT_EQ(created, made);
    EXPECT_EQ(ended, made);
    EXPECT_GT(tables, 0);
    EXPECT_GT(counters, 0);
    const auto status = OpenPinnedMap(PinnedRing::CORE, "ringbuf_status");
    EXPECT_EQ(ReadLostRecords(status.get()), 0U);
    std::printf("%zu processes, %d signals, %d tables and %d counter files read whole\n", made,
                signals, tables, counters);
}

}  // namespace
}  // namespace Tesu::Bpf
