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
#include <list>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "client/event_decoder.h"
#include "client/process_model.h"
#include "proc/process_snapshot.h"
#include "records/contract.h"
#include "records/read_prefix.h"
#include "task/tesu_bpf_task_manager.h"
#include "tests/support/child_process.h"
#include "tests/support/kernel.h"
#include "tests/support/temp_dir.h"
#include "tests/support/vgem_buffer.h"
#include "tests/support/wait_until.h"
#include "util/monotonic_clock.h"

namespace Tesu::Bpf {
namespace {

using android::base::unique_fd;
using std::chrono::milliseconds;

// A service under a sanitizer needs a larger ring to keep up.
constexpr uint32_t RING_BYTES = uint32_t{TESUBPF_STORM_RING_MIB} << 20;

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
Rows ReadTable(const std::string& path) {
    constexpr size_t NAME_WIDTH = 16;
    TesuTaskManager::GetInstance()->DumpTesuTaskInfo(path);
    Rows table;
    std::ifstream file(path);
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
    void start(WireClient* events) {
        client = events;
        model.beginSnapshot(MonotonicNanoseconds());
        model.finishSnapshot(ReadProc());
    }
    void readEvents() {
        while (const auto package = client->next(milliseconds(0))) {
            model.apply(
                DecodeEvent(package->body.data(), static_cast<uint32_t>(package->body.size())));
        }
    }
    Rows rows() {
        readEvents();
        model.advanceTo(MonotonicNanoseconds());
        for (const int32_t pid : model.takeRereads(MonotonicNanoseconds(), SIZE_MAX)) {
            model.applyReread(pid, ProcReader().read(pid));
        }
        Rows rows;
        for (const ProcessRow& row : model.view({}).rows) {
            rows[row.pid] = {row.name, row.ppid, row.threads, row.memory};
        }
        return rows;
    }

  private:
    WireClient* client = nullptr;
    ProcessModel model;
};

// The differences, a line each, between /proc and the rows: processes that one of the two lacks;
// another parent, while the one in the row lives; and of the known processes, which are those with
// the names that their rows are to have, other names, thread counts and sizes. Differences that
// pass, of processes that come and go just now, are among them.
std::string CompareWithProc(const Rows& rows, const std::map<pid_t, std::string>& known) {
    // The kernel adds up what each CPU counted in batches of at most 64 pages.
    const int64_t owed = 64 * sysconf(_SC_PAGESIZE) * sysconf(_SC_NPROCESSORS_ONLN);
    std::ostringstream differences;
    Rows missing = rows;
    std::vector<ProcessSnapshot> present = ReadProc();
    std::erase_if(present, [](const ProcessSnapshot& process) { return process.isEnding; });
    for (const ProcessSnapshot& process : present) {
        missing.erase(process.pid);
        const auto found = rows.find(process.pid);
        if (found == rows.end()) {
            differences << process.pid << " (" << process.name << ") is not there\n";
            continue;
        }
        const Row& row = found->second;
        if (row.ppid != process.ppid && rows.contains(row.ppid)) {
            differences << process.pid << ": parent " << row.ppid << "\n";
        }
        const auto expected = known.find(process.pid);
        if (expected == known.end()) {
            continue;
        }
        if (row.name != expected->second || row.threads != process.threads) {
            differences << process.pid << ": " << row.name << ", threads " << row.threads
                        << ", not " << process.threads << "\n";
        }
        for (int kind = 0; kind < RSS_MEMBER_COUNT; ++kind) {
            if (std::llabs(row.memory[kind] - process.memory[kind]) > owed) {
                differences << process.pid << ": size " << kind << " is " << row.memory[kind]
                            << ", not " << process.memory[kind] << "\n";
            }
        }
    }
    for (const auto& [pid, row] : missing) {
        differences << pid << " (" << row.name << ") does not live\n";
    }
    return differences.str();
}

// A dump of tasks says how many there are, and its rows are of one length; names have no line ends
// here. The one of counters ends a line as it does.
bool IsWhole(const std::string& text) {
    const std::string title = "============ DUMP ALL TESU TASKS INFO (count: ";
    if (!text.starts_with(title)) {
        return text.starts_with("EventCount") && text.ends_with("\r\n");
    }
    std::istringstream lines(text);
    std::string line;
    std::getline(lines, line);
    const long count = std::stol(line.substr(title.size()));
    std::getline(lines, line);
    std::set<size_t> lengths;
    long rows = 0;
    bool hasKernelTasks = false;
    for (; std::getline(lines, line); ++rows) {
        lengths.insert(line.size());
        hasKernelTasks |= line.starts_with("kthreadd");
    }
    return text.ends_with('\n') && lengths.size() == 1 && (rows == count || !hasKernelTasks);
}

class TableTest : public ServiceTest {
  protected:
    static std::unique_ptr<ChildProcess> work(const std::string& kind, size_t number) {
        return std::make_unique<ChildProcess>(
            std::vector<std::string>{TESUBPF_WORKLOAD_PATH, kind, std::to_string(number)});
    }

    // Takes events until the work is done.
    void finish(ChildProcess* workload) {
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(150);
        while (!workload->waitForOutput("done", milliseconds(20)) &&
               std::chrono::steady_clock::now() < end) {
            top.readEvents();
        }
        EXPECT_TRUE(workload->waitForOutput("done")) << workload->error;
    }

    // Whether both come to equal /proc; what comes and goes meanwhile is given time. Names in the
    // service's table are those of the fork, in the model today's.
    void expectEqualProc(const std::map<pid_t, std::string>& known) {
        std::string differences;
        EXPECT_TRUE(WaitUntil([&] {
            differences = CompareWithProc(ReadTable(temp.path("table")), known);
            return differences.empty();
        })) << "the service's table: "
            << differences;
        std::map<pid_t, std::string> today;
        for (const auto& [pid, name] : known) {
            today[pid] = ProcReader().read(pid)->name;
        }
        EXPECT_TRUE(WaitUntil([&] {
            differences = CompareWithProc(top.rows(), today);
            return differences.empty();
        })) << "the client's model: "
            << differences;
        EXPECT_EQ(LostRecords(RING_CORE), 0U);
    }

    TempDir temp;
    WireClient client;
    TopModel top;
};

TEST_F(TableTest, EqualsProcBeforeDuringAndAfterStorms) {
    const size_t processes = Scaled(40000);
    const size_t children = Scaled(900);
    ChildProcess idle({"/bin/sleep", "600"});
    ChildProcess zombie({"/bin/true"});
    ASSERT_TRUE(WaitUntil([&] {
        return ProcReader().read(idle.pid())->name == "sleep" &&
               ProcReader().read(zombie.pid())->isEnding;
    }));
    std::map<pid_t, std::string> known = {{idle.pid(), "sleep"}};
    // The service begins while processes come and go.
    const auto early = work("processes", processes / 2);
    ASSERT_NO_FATAL_FAILURE(startService(RING_BYTES));
    subscribe(&client, {RAW_EVENT_TASK_CREATE, RAW_EVENT_TASK_EXIT, RAW_EVENT_RSS_STAT,
                        RAW_EVENT_FD_UPDATE});
    top.start(&client);
    finish(early.get());
    expectEqualProc(known);

    const auto late = work("processes", processes / 2);
    finish(late.get());
    expectEqualProc(known);

    const auto threads = work("threads", processes / 2);
    finish(threads.get());
    const std::string ownName = ProcReader().read(getpid())->name;
    known[threads->pid()] = ownName;
    expectEqualProc(known);

    const auto parent = work("children", children);
    finish(parent.get());
    known[parent->pid()] = ownName;
    for (const ProcessSnapshot& process : ReadProc()) {
        if (process.ppid == parent->pid()) {
            known[process.pid] = ProcReader().read(parent->pid())->name;
        }
    }
    EXPECT_EQ(known.size(), 3 + (children / 3) * 2);
    expectEqualProc(known);

    threads->sendSignal(SIGKILL);
    parent->sendSignal(SIGKILL);
    expectEqualProc({{idle.pid(), "sleep"}});
}

TEST_F(TableTest, KnowsTheDescriptorsThatWereThereBefore) {
    std::list<unique_fd> inherited;
    for (int i = 0; i < 37; ++i) {
        inherited.emplace_back(open("/dev/null", O_RDONLY));
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
        const auto event = ReadPrefix<RawDmabufAllocEvent>(
            package->body.data(), static_cast<int64_t>(package->body.size()));
        EXPECT_EQ(event.pid, getpid());
        EXPECT_EQ(event.size, left * page);
    }
}

// A thousand signals a second while processes come and go, until the process has ended.
TEST_F(TableTest, DumpsDuringAStormAreWholeAndCostNoEvent) {
    ASSERT_NO_FATAL_FAILURE(startService(RING_BYTES));
    subscribe(&client, {RAW_EVENT_TASK_CREATE, RAW_EVENT_TASK_EXIT});
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
                // The writer owes the whole dump also of a file that it has replaced since.
                const unique_fd fd(open((folder + file).c_str(), O_RDONLY | O_CLOEXEC));
                std::string text;
                read[file] += fd.ok();
                EXPECT_TRUE(!fd.ok() || WaitUntil([&] {
                    return lseek(fd.get(), 0, SEEK_SET) == 0 &&
                           android::base::ReadFdToString(fd.get(), &text) && IsWhole(text);
                })) << text;
            }
        }
    });

    const auto storm = work("processes", Scaled(20000));
    // Of the storm's children; ids come again.
    std::set<pid_t> living;
    size_t created = 0;
    size_t ended = 0;
    bool isDone = false;
    while (!isDone || created + ended < 2 * Scaled(20000)) {
        isDone = storm->waitForOutput("done", milliseconds(10));
        auto package = client.next(milliseconds(isDone ? 5000 : 20));
        if (isDone && !package) {
            break;
        }
        for (; package; package = client.next(milliseconds(0))) {
            const auto size = static_cast<int64_t>(package->body.size());
            const auto create = ReadPrefix<RawTaskCreateEvent>(package->body.data(), size);
            const auto exit = ReadPrefix<RawTaskExitEvent>(package->body.data(), size);
            if (create.header.type == RAW_EVENT_TASK_EXIT) {
                ended += exit.taskType == RAW_TASK_PROCESS ? living.erase(exit.pid) : 0;
            } else if (create.ppid == storm->pid() && create.taskType == RAW_TASK_PROCESS) {
                EXPECT_TRUE(living.insert(create.pid).second) << create.pid;
                ++created;
            }
        }
    }
    isOver = true;
    reader.join();
    EXPECT_EQ(created, Scaled(20000));
    EXPECT_EQ(ended, Scaled(20000));
    EXPECT_EQ(LostRecords(RING_CORE), 0U);
}

}  // namespace
}  // namespace Tesu::Bpf
