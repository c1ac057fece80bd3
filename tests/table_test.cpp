// SPDX-License-Identifier: Apache-2.0
//
// What the running service and the client's model of processes know, compared with /proc while much
// happens on the machine; and the service's dumps meanwhile.
#include <android-base/file.h>
#include <android-base/unique_fd.h>
#include <bpf/bpf.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "client/model/process_model.h"
#include "proc/process_snapshot.h"
#include "records/contract.h"
#include "records/event_table.h"
#include "task/tesu_bpf_task_manager.h"
#include "tests/support/child_process.h"
#include "tests/support/kernel.h"
#include "tests/support/vgem_buffer.h"
#include "tests/support/wait_until.h"
#include "util/monotonic_clock.h"

namespace Tesu::Bpf {
namespace {

using android::base::unique_fd;
using std::chrono::milliseconds;
using testing::IsEmpty;

// More than a storm writes: none of it is lost on a machine that is busy with something else.
constexpr uint32_t RING_BYTES = 32 << 20;
constexpr uint64_t STORM = 6000;

// Of a process, as /proc, the service and the client's model have it.
struct Row {
    std::string name;
    int ppid = 0;
    int threads = 0;
    std::array<int64_t, RSS_MEMBER_COUNT> memory{};  // bytes
};
using Rows = std::map<pid_t, Row>;

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
    std::getline(file, line);
    std::getline(file, line);
    while (std::getline(file, line)) {
        Row row;
        row.name = line.substr(0, NAME_WIDTH);
        row.name.erase(row.name.find_last_not_of(' ') + 1);
        std::istringstream fields(line.substr(NAME_WIDTH));
        pid_t pid = 0;
        std::string ignored;
        fields >> pid >> row.ppid >> row.threads >> ignored >> ignored;
        for (const RssMember member : {RSS_ANON, RSS_FILE, RSS_SHMEM, RSS_SWAP}) {
            fields >> row.memory[member] >> ignored >> ignored >> ignored;
            row.memory[member] *= 1024;
        }
        table[pid] = row;
    }
    return table;
}

// What `tesubpf top` has of the machine.
class TopModel {
  public:
    void start() {
        const int64_t begin = MonotonicNanoseconds();
        model.mergeProc(begin, ReadProc());
    }
    void readEvents() {
        while (const auto package = client.next(milliseconds(0))) {
            model.apply(
                DecodeEvent(package->body.data(), static_cast<uint32_t>(package->body.size())));
        }
    }
    Rows rows() {
        readEvents();
        model.advanceTo(MonotonicNanoseconds());
        for (const int32_t pid : model.takeRefreshes(MonotonicNanoseconds(), SIZE_MAX)) {
            model.refresh(pid, ProcReader().read(pid));
        }
        Rows rows;
        for (const ProcessRow& row : model.view({}).rows) {
            rows[row.pid] = {row.name, row.ppid, row.threads, row.memory};
        }
        return rows;
    }

    WireClient client;

  private:
    ProcessModel model;
};

// The differences between /proc and the rows: processes that one of the two lacks; another parent,
// while the one in the row lives; and of the known processes, which are those with the names that
// their rows are to have, other names, thread counts and sizes. Those that pass, of processes that
// come and go just now, are among them.
std::set<std::string> CompareWithProc(const Rows& rows, const std::map<pid_t, std::string>& known) {
    // The kernel adds up what each CPU counted in batches of at most 64 pages.
    const int64_t owed = 64 * sysconf(_SC_PAGESIZE) * sysconf(_SC_NPROCESSORS_ONLN);
    std::set<std::string> differences;
    Rows gone = rows;
    for (const ProcessSnapshot& process : ReadProc()) {
        if (process.isEnding) {
            continue;
        }
        const auto check = [&](bool isRight, const std::string& what) {
            if (!isRight) {
                differences.insert(std::to_string(process.pid) + " (" + process.name + ")" + what);
            }
            return isRight;
        };
        gone.erase(process.pid);
        const auto row = rows.find(process.pid);
        if (!check(row != rows.end(), " is not there")) {
            continue;
        }
        const auto& [name, ppid, threads, memory] = row->second;
        check(ppid == process.ppid || !rows.contains(ppid), " has another parent");
        if (const auto expected = known.find(process.pid); expected != known.end()) {
            check(name == expected->second, " is called " + name);
            check(threads == process.threads, " has other threads");
            for (size_t member = 0; member < memory.size(); ++member) {
                check(std::llabs(memory[member] - process.memory[member]) <= owed,
                      " has size " + std::to_string(member) + ": " +
                          std::to_string(memory[member]) + ", not " +
                          std::to_string(process.memory[member]));
            }
        }
    }
    for (const auto& [pid, row] : gone) {
        differences.insert(std::to_string(pid) + " (" + row.name + ") does not live");
    }
    return differences;
}

// A dump of tasks says how many there are, kernel tasks included; names have no line ends here.
bool IsWhole(const std::string& text) {
    const auto lines = std::count(text.begin(), text.end(), '\n');
    const bool isAll = text.find("\nkthreadd ") != std::string::npos;
    return text.ends_with('\n') &&
           (!isAll || lines == 2 + std::stol(text.substr(text.find("count: ") + 7)));
}

class TableTest : public ServiceTest {
  protected:
    static std::unique_ptr<ChildProcess> work(const std::string& kind, size_t number) {
        return std::make_unique<ChildProcess>(
            std::vector<std::string>{TESUBPF_WORKLOAD_PATH, kind, std::to_string(number)});
    }

    static void finish(ChildProcess* workload, const std::function<void()>& meanwhile) {
        EXPECT_TRUE(WaitUntil(
            [&] {
                meanwhile();
                return workload->waitForOutput("done", milliseconds(20));
            },
            std::chrono::seconds(150)))
            << workload->error;
    }

    // Differences that pass are none. Names in the service's table are those of the fork, in the
    // model today's.
    void expectEqualProc(const std::map<pid_t, std::string>& known) {
        std::map<pid_t, std::string> today;
        for (const auto& [pid, name] : known) {
            today[pid] = ProcReader().read(pid)->name;
        }
        const auto lasting = [](const auto& compare) {
            std::set<std::string> differences = compare();
            WaitUntil([&] {
                const std::set<std::string> now = compare();
                std::erase_if(differences, [&](const auto& line) { return !now.contains(line); });
                return differences.empty();
            });
            return differences;
        };
        EXPECT_THAT(lasting([&] { return CompareWithProc(ReadTable(), known); }), IsEmpty())
            << "of the service's table";
        EXPECT_THAT(lasting([&] { return CompareWithProc(top.rows(), today); }), IsEmpty())
            << "of the client's model";
        EXPECT_EQ(LostRecords(RING_CORE), 0U);
    }

    WireClient client;
    TopModel top;
};

TEST_F(TableTest, EqualsProcBeforeDuringAndAfterStorms) {
    const size_t children = Scaled(STORM / 20);
    ChildProcess idle({"/bin/sleep", "600"});
    ChildProcess zombie({"/bin/true"});
    ASSERT_TRUE(WaitUntil([&] {
        return ProcReader().read(idle.pid())->name == "sleep" &&
               ProcReader().read(zombie.pid())->isEnding;
    }));
    std::map<pid_t, std::string> known = {{idle.pid(), "sleep"}};
    // The service begins while processes come and go.
    ASSERT_NO_FATAL_FAILURE(load(RING_BYTES));
    const auto early = work("processes", Scaled(STORM));
    ASSERT_NO_FATAL_FAILURE(startService(RING_BYTES));
    subscribe(&top.client, {RAW_EVENT_TASK_CREATE, RAW_EVENT_TASK_EXIT, RAW_EVENT_RSS_STAT,
                            RAW_EVENT_FD_UPDATE});
    top.start();
    const auto readEvents = [&] { top.readEvents(); };
    finish(early.get(), readEvents);
    expectEqualProc(known);

    const auto threads = work("threads", Scaled(STORM));
    finish(threads.get(), readEvents);
    const std::string ownName = ProcReader().read(getpid())->name;
    known[threads->pid()] = ownName;
    expectEqualProc(known);

    const auto parent = work("children", children);
    finish(parent.get(), readEvents);
    known[parent->pid()] = ownName;
    for (const ProcessSnapshot& process : ReadProc()) {
        if (process.ppid == parent->pid()) {
            known[process.pid] = ProcReader().read(parent->pid())->name;
        }
    }
    EXPECT_EQ(known.size(), 3 + children - children / 3);
    expectEqualProc(known);

    threads->sendSignal(SIGKILL);
    parent->sendSignal(SIGKILL);
    expectEqualProc({{idle.pid(), "sleep"}});
}

TEST_F(TableTest, KnowsTheDescriptorsThatWereThereBefore) {
    for (int i = 0; i < 37; ++i) {
        open("/dev/null", O_RDONLY);  // for the program to inherit
    }
    ChildProcess idle({"/bin/sleep", "600"});
    const int32_t pid = idle.pid();
    ASSERT_TRUE(WaitUntil([&] { return ProcReader().read(pid)->name == "sleep"; }));
    ASSERT_NO_FATAL_FAILURE(startService(RING_BYTES));
    const unique_fd map = OpenPin(OPEN_FD_MAP);
    OpenFdCaller caller{};
    ASSERT_TRUE(WaitUntil([&] { return bpf_map_lookup_elem(map.get(), &pid, &caller) == 0; }));
    const std::filesystem::directory_iterator fds("/proc/" + std::to_string(pid) + "/fd");
    EXPECT_EQ(caller.openFds, static_cast<uint64_t>(std::distance(begin(fds), end(fds))));
    EXPECT_GE(caller.openFds, 40U);
    EXPECT_EQ(caller.reportedFds, caller.openFds);
    EXPECT_STREQ(caller.comm, "sleep");
}

TEST_F(TableTest, KnowsTheDmaBufsThatWereThereBefore) {
    if (!std::filesystem::exists(VgemBuffer::CARD)) {
        GTEST_SKIP() << "no virtual graphics card";
    }
    const int64_t page = sysconf(_SC_PAGESIZE);
    std::list<VgemBuffer> buffers;
    for (const auto& [rows, name] : {std::pair(3, ""), {16, ""}, {5, "named"}}) {
        ASSERT_TRUE(buffers.emplace_back(rows, name).ok()) << strerror(errno);
    }
    ASSERT_NO_FATAL_FAILURE(startService(RING_BYTES, "6.1"));
    subscribe(&client, {RAW_EVENT_DMABUF_SIZE});
    for (const int64_t left : {21, 5, 0}) {
        buffers.pop_front();
        const auto package = client.next();
        ASSERT_TRUE(package.has_value());
        const auto event = As<RawDmabufAllocEvent>(package->body);
        EXPECT_EQ(event.pid, getpid());
        EXPECT_EQ(event.size, left * page);
    }
}

// A thousand signals a second while processes come and go, until the process has ended.
TEST_F(TableTest, DumpsDuringAStormAreWholeAndCostNoEvent) {
    ASSERT_NO_FATAL_FAILURE(startService(RING_BYTES));
    subscribe(&client, {RAW_EVENT_TASK_CREATE, RAW_EVENT_TASK_EXIT});
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
        std::map<std::string, int> read;
        const std::string folder = std::string(DUMP_DIR) + "/";
        while (!isOver || read.size() < 2) {
            for (const std::string file : {TASK_DUMP_FILE, STATE_DUMP_FILE}) {
                std::string text;
                if (android::base::ReadFileToString(folder + file, &text)) {
                    EXPECT_TRUE(IsWhole(text)) << text;
                    ++read[file];
                }
            }
        }
    });

    const size_t count = Scaled(STORM);
    const auto storm = work("processes", count);
    // Of the storm's children; ids come again.
    std::set<pid_t> living;
    size_t created = 0;
    size_t ended = 0;
    pid_t exited = 0;
    const auto take = [&](milliseconds patience) {
        const auto package = client.next(patience);
        const auto exit = As<RawTaskExitEvent>(package ? package->body : "");
        const auto create = As<RawTaskCreateEvent>(package ? package->body : "");
        if (exit.header.type == RAW_EVENT_TASK_EXIT && exit.taskType == RAW_TASK_PROCESS) {
            exited = exit.pid;
            ended += living.erase(exited);
        } else if (create.header.type == RAW_EVENT_TASK_CREATE && create.ppid == storm->pid()) {
            EXPECT_TRUE(living.insert(create.pid).second) << create.pid;
            ++created;
        }
        return package.has_value();
    };
    finish(storm.get(), [&] {
        while (take(milliseconds(0))) {
        }
    });
    ChildProcess last({"/bin/true"});
    last.waitForExit();
    while (exited != last.pid() && take(WireClient::PATIENCE)) {
    }
    EXPECT_EQ(exited, last.pid()) << "the stream ended";
    isOver = true;
    reader.join();
    EXPECT_EQ(created, count);
    EXPECT_EQ(ended, count);
    EXPECT_EQ(LostRecords(RING_CORE), 0U);
}

}  // namespace
}  // namespace Tesu::Bpf
