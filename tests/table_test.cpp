// SPDX-License-Identifier: Apache-2.0
//
// What the running service and the client's model of processes know, compared with /proc while much
// happens on the machine; and the service's dumps meanwhile.
#include <android-base/file.h>
#include <android-base/properties.h>
#include <bpf/bpf.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/sched.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <list>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "model/process_model.h"
#include "proc/process_snapshot.h"
#include "records/contract.h"
#include "records/event_table.h"
#include "task/tesu_bpf_task_manager.h"
#include "tests/support/child_process.h"
#include "tests/support/kernel.h"
#include "tests/support/records.h"
#include "tests/support/vgem_buffer.h"
#include "tests/support/wait_until.h"
#include "util/monotonic_clock.h"

namespace Tesu::Bpf {
namespace {

using std::chrono::milliseconds;

const size_t NUMBER = Scaled(6000);  // of a storm's processes or threads
const size_t CHILDREN = Scaled(300);

using Rows = std::map<pid_t, ProcessRow>;

std::vector<ProcessSnapshot> ReadProc() {
    std::vector<ProcessSnapshot> processes;
    EXPECT_TRUE(ProcReader().readAll(&processes));
    return processes;
}

// The service's, from a dump with all columns. The name fills its column and may hold anything but
// line ends here.
Rows ReadTable() {
    constexpr size_t NAME_WIDTH = 16;
    TesuTaskManager::GetInstance()->DumpTesuTaskInfo();
    Rows table;
    std::ifstream file(std::string(DUMP_DIR) + "/" + TASK_DUMP_FILE);
    std::string line;
    std::getline(std::getline(file, line), line);
    while (std::getline(file, line)) {
        ProcessRow row;
        row.name = line.substr(0, std::min(NAME_WIDTH, line.find(' ')));
        std::istringstream fields(line.substr(NAME_WIDTH));
        std::string ignored;
        fields >> row.pid >> row.ppid >> row.threads >> ignored >> ignored;
        for (const RssMember member : {RSS_ANON, RSS_FILE, RSS_SHMEM, RSS_SWAP}) {
            fields >> row.memory[member] >> ignored >> ignored >> ignored;
            row.memory[member] *= 1024;
        }
        table[row.pid] = row;
    }
    return table;
}

// The differences between /proc and the rows of the service's table, or of the client's model:
// processes that one of the two lacks; another parent, while the one in the row lives; and of the
// processes in `names`, other names, thread counts and sizes. Names in the service's table are
// those of the fork, as given; in the model today's.
std::set<std::string> CompareWithProc(const Rows& rows, bool isTable,
                                      const std::map<pid_t, std::string>& names) {
    // The kernel adds up what each CPU counted in batches of at most 64 pages.
    const int64_t owed = 64 * sysconf(_SC_PAGESIZE) * sysconf(_SC_NPROCESSORS_ONLN);
    const auto isNear = [owed](int64_t a, int64_t b) { return std::llabs(a - b) <= owed; };
    const std::string owner = isTable ? "table: " : "model: ";
    std::set<std::string> differences;
    Rows gone = rows;
    for (const ProcessSnapshot& process : ReadProc()) {
        const std::string pid = owner + std::to_string(process.pid) + " " + process.name;
        if (process.isEnding) {
            continue;
        }
        if (gone.erase(process.pid) == 0) {
            differences.insert(pid + " is not there");
            continue;
        }
        const ProcessRow& row = rows.at(process.pid);
        if (row.ppid != process.ppid && rows.contains(row.ppid)) {
            differences.insert(pid + " has another parent");
        }
        const auto name = names.find(process.pid);
        if (name != names.end() && (row.name != (isTable ? name->second : process.name) ||
                                    row.threads != process.threads ||
                                    !std::ranges::equal(row.memory, process.memory, isNear))) {
            differences.insert(pid + " is " + row.name + ", or has other threads or sizes");
        }
    }
    for (const auto& [pid, row] : gone) {
        differences.insert(owner + std::to_string(pid) + " " + row.name + " does not live");
    }
    return differences;
}

// The rows of a dump of tasks are of one length; names have no line ends here. The one of counters
// ends a line as it does.
bool IsWhole(const std::string& text) {
    if (text.starts_with("EventCount")) {
        return text.ends_with("\r\n");
    }
    std::istringstream lines(text);
    std::string line;
    std::set<size_t> lengths;
    std::getline(std::getline(lines, line), line);
    while (std::getline(lines, line)) {
        lengths.insert(line.size());
    }
    return lengths.size() == 1 && text.ends_with('\n');
}

class TableTest : public KernelServiceTest {
  protected:
    static std::vector<std::string> work(const std::string& kind) {
        const size_t number = kind == "children" ? CHILDREN : NUMBER;
        return {TESUBPF_WORKLOAD_PATH, kind, std::to_string(number)};
    }

    static void finish(ChildProcess& workload, const std::function<void()>& meanwhile) {
        const auto isDone = [&] {
            meanwhile();
            return workload.waitForOutput("done", milliseconds(20));
        };
        EXPECT_TRUE(WaitUntil(isDone, std::chrono::seconds(150))) << workload.error;
    }

    // What `tesubpf top` has of the machine.
    void readEvents() {
        while (const auto package = client.next(milliseconds(0))) {
            model.apply(
                DecodeEvent(package->body.data(), static_cast<uint32_t>(package->body.size())));
        }
    }
    Rows readModel() {
        readEvents();
        model.advanceTo(MonotonicNanoseconds());
        for (const int32_t pid : model.takeRefreshes(MonotonicNanoseconds(), SIZE_MAX)) {
            model.refresh(pid, ProcReader().read(pid));
        }
        Rows rows;
        for (const ProcessRow& row : model.view({}).rows) {
            rows[row.pid] = row;
        }
        return rows;
    }

    // Differences that pass, of processes that come and go just now, are none.
    void expectEqualProc(const std::map<pid_t, std::string>& names) {
        const auto compare = [&] {
            std::set<std::string> differences = CompareWithProc(ReadTable(), true, names);
            differences.merge(CompareWithProc(readModel(), false, names));
            return differences;
        };
        std::set<std::string> lasting = compare();
        WaitUntil([&] {
            const std::set<std::string> now = compare();
            std::erase_if(lasting, [&](const auto& line) { return !now.contains(line); });
            return lasting.empty();
        });
        EXPECT_THAT(lasting, testing::IsEmpty());
        EXPECT_EQ(LostRecords(RING_CORE), 0U);
    }

    ProcessModel model;
};

TEST_F(TableTest, EqualsProcBeforeDuringAndAfterStorms) {
    ChildProcess idle({"/bin/sleep", "600"});
    ChildProcess zombie({"/bin/true"});
    ASSERT_TRUE(WaitUntil([&] { return ProcReader().read(idle.pid())->name == "sleep"; }));
    ASSERT_TRUE(WaitUntil([&] { return ProcReader().read(zombie.pid())->isEnding; }));
    const std::map<pid_t, std::string> before = {{idle.pid(), "sleep"}};
    std::map<pid_t, std::string> names = before;  // at the fork
    // The service begins while processes come and go.
    std::list<ChildProcess> workloads;
    workloads.emplace_back(work("processes"));
    ASSERT_NO_FATAL_FAILURE(startService(LARGE_RING_BYTES));
    subscribe(
        {RAW_EVENT_TASK_CREATE, RAW_EVENT_TASK_EXIT, RAW_EVENT_RSS_STAT, RAW_EVENT_FD_UPDATE});
    const int64_t begin = MonotonicNanoseconds();  // before /proc is read
    model.mergeProc(begin, ReadProc());
    finish(workloads.back(), [this] { readEvents(); });
    expectEqualProc(names);

    for (const std::string kind : {"processes", "threads", "children"}) {
        ChildProcess& workload = workloads.emplace_back(work(kind));
        finish(workload, [this] { readEvents(); });
        names[workload.pid()] = ProcReader().read(getpid())->name;
        for (const ProcessSnapshot& process : ReadProc()) {
            if (process.ppid == workload.pid()) {
                names[process.pid] = ProcReader().read(workload.pid())->name;
            }
        }
        expectEqualProc(names);
    }
    EXPECT_EQ(names.size(), 4 + CHILDREN - CHILDREN / 3);
    for (const ChildProcess& workload : workloads) {
        workload.sendSignal(SIGKILL);
    }
    expectEqualProc(before);
}

// A process that lives on; `pid` chooses its id.
pid_t Start(pid_t pid = 0) {
    clone_args arguments = {};
    arguments.exit_signal = SIGCHLD;
    if (pid != 0) {
        arguments.set_tid = reinterpret_cast<uintptr_t>(&pid);
        arguments.set_tid_size = 1;
    }
    const auto started = static_cast<pid_t>(syscall(SYS_clone3, &arguments, sizeof(arguments)));
    if (started == 0) {
        execl(TESUBPF_WORKLOAD_PATH, "workload", "touch", "-", nullptr);
        _exit(1);
    }
    return started;
}

void End(pid_t pid) {
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
}

TEST_F(TableTest, IsPutRightWhereRecordsWereLost) {
    android::base::SetProperty(MEND_TABLE_PROPERTY, "1");
    ASSERT_NO_FATAL_FAILURE(startService(128 * 1024));
    subscribe({RAW_EVENT_TASK_INIT, NOTIFICATION_PROCESS_CREATED});
    const pid_t gone = Start();
    const pid_t replaced = Start();
    ASSERT_TRUE(WaitUntil([&, table = Rows()]() mutable {
        table = ReadTable();
        return table.contains(gone) && table.contains(replaced);
    }));
    std::this_thread::sleep_for(std::chrono::seconds(4));  // ids do not come back at once
    SetRingFlags(RING_CORE, 0);
    End(gone);
    End(replaced);
    const pid_t unknown = Start();
    ASSERT_EQ(Start(replaced), replaced);
    const RawEventHeader any = {.type = RAW_EVENT_FD_UPDATE, .padding = 0, .time = 0};
    RecordInjector injector(RING_CORE);
    // More than the ring holds at once: on one CPU the reader keeps up with less.
    while (injector.inject(&any, sizeof(any), 20000).refused == 0) {
    }
    SetRingFlags(RING_CORE, FLAG_CORE_ENABLED | FLAG_NORMAL_ENABLED);

    const std::string name = "tesubpf_test_wo";
    ASSERT_TRUE(WaitUntil([&] {
        const Rows table = ReadTable();
        const auto isThere = [&](pid_t pid) {
            const auto found = table.find(pid);
            return found != table.end() && found->second.name == name;
        };
        return !table.contains(gone) && isThere(unknown) && isThere(replaced);
    }));
    std::multiset<pid_t> told;
    while (told.count(unknown) + told.count(replaced) < 2) {
        const auto package = client.next();
        ASSERT_TRUE(package.has_value());
        const auto event = As<RawTesuTaskInitEvent>(package->body);
        if (event.header.type == RAW_EVENT_TASK_INIT) {
            told.insert(event.pid);
        } else {
            EXPECT_NE(As<ProcessCreatedNotification>(package->body).pid, unknown);
        }
    }
    EXPECT_EQ(told.count(unknown), 1U);
    for (const pid_t pid : {unknown, replaced}) {
        End(pid);
        EXPECT_TRUE(WaitUntil([pid] { return !ReadTable().contains(pid); }));
    }
}

TEST_F(TableTest, KnowsTheDescriptorsAndDmaBufsThatWereThereBefore) {
    std::list<VgemBuffer> buffers;
    buffers.emplace_back(3);
    buffers.emplace_back(16);
    buffers.emplace_back(5, "named");
    ChildProcess idle({"/bin/sleep", "600"});
    const int32_t pid = idle.pid();
    ASSERT_TRUE(WaitUntil([&] { return ProcReader().read(pid)->name == "sleep"; }));
    ASSERT_NO_FATAL_FAILURE(startService(LARGE_RING_BYTES, "6.1"));
    const auto map = OpenPin(OPEN_FD_MAP);
    OpenFdCaller caller{};
    ASSERT_TRUE(WaitUntil([&] { return bpf_map_lookup_elem(map.get(), &pid, &caller) == 0; }));
    EXPECT_EQ(caller.openFds, static_cast<uint64_t>(*ProcReader().read(pid)->openFds));
    EXPECT_GE(caller.openFds, 3U);
    EXPECT_EQ(caller.reportedFds, caller.openFds);
    EXPECT_STREQ(caller.comm, "sleep");

    if (!buffers.back().ok()) {
        GTEST_SKIP() << "no virtual graphics card that maps dma-bufs as such";
    }
    subscribe({RAW_EVENT_DMABUF_SIZE});
    for (const int64_t left : {21, 5, 0}) {
        buffers.pop_front();
        const auto package = client.next();
        ASSERT_TRUE(package.has_value());
        const auto event = As<RawDmabufAllocEvent>(package->body);
        EXPECT_EQ(event.pid, getpid());
        EXPECT_EQ(event.size, left * sysconf(_SC_PAGESIZE));
    }
}

// A thousand signals a second while processes come and go, until the process has ended.
TEST_F(TableTest, DumpsDuringAStormAreWholeAndCostNoEvent) {
    ASSERT_NO_FATAL_FAILURE(startService(LARGE_RING_BYTES));
    subscribe({RAW_EVENT_TASK_CREATE, RAW_EVENT_TASK_EXIT});
    // The service's threads take the signals; here they would end waits.
    sigset_t signals;
    sigfillset(&signals);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    std::thread([] {
        for (int i = 0;; ++i) {
            kill(getpid(), DUMP_SIGNAL_STATE + i % 5);
            std::this_thread::sleep_for(milliseconds(1));
        }
    }).detach();
    std::atomic<bool> isOver{false};
    std::thread reader([&] {
        std::set<std::string> read;
        while (!isOver || read.size() < 2) {
            for (const std::string file : {TASK_DUMP_FILE, STATE_DUMP_FILE}) {
                std::string text;
                if (android::base::ReadFileToString(DUMP_DIR + ("/" + file), &text)) {
                    EXPECT_TRUE(IsWhole(text)) << text;
                    read.insert(file);
                }
            }
        }
    });

    ChildProcess storm(work("processes"));
    // Of the storm's children; ids come again.
    std::set<pid_t> living;
    size_t created = 0;
    size_t ended = 0;
    pid_t last = 0;  // beside those of others, which end at any time
    bool hasLastEnded = false;
    const auto drain = [&] {
        while (const auto package = client.next(milliseconds(0))) {
            const auto create = As<RawTaskCreateEvent>(package->body);
            const auto exit = As<RawTaskExitEvent>(package->body);
            if (exit.header.type == RAW_EVENT_TASK_EXIT && exit.taskType == RAW_TASK_PROCESS) {
                hasLastEnded |= exit.pid == last;
                ended += living.erase(exit.pid);
            } else if (create.header.type == RAW_EVENT_TASK_CREATE && create.ppid == storm.pid()) {
                EXPECT_TRUE(living.insert(create.pid).second) << create.pid;
                ++created;
            }
            const uint32_t type = create.header.type;
            EXPECT_TRUE(type == RAW_EVENT_TASK_CREATE || type == RAW_EVENT_TASK_EXIT) << type;
        }
    };
    finish(storm, drain);
    const ChildProcess end({"/bin/true"});
    last = end.pid();
    EXPECT_TRUE(WaitUntil([&] {
        drain();
        return hasLastEnded;
    }));
    isOver = true;
    reader.join();
    EXPECT_EQ(created, NUMBER);
    EXPECT_EQ(ended, NUMBER);
    EXPECT_EQ(LostRecords(RING_CORE), 0U);
}

}  // namespace
}  // namespace Tesu::Bpf
