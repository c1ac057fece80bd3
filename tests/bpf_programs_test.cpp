// SPDX-License-Identifier: Apache-2.0
//
// The pinned programs on the running kernel: real tasks, real tracepoints, real ring buffers.
#include <android-base/unique_fd.h>
#include <bpf/bpf.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/io_uring.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <set>
#include <thread>
#include <vector>

#include "service/lost_records.h"
#include "tests/support/pins.h"
#include "tests/support/record_injector.h"
#include "tests/support/sandbox.h"
#include "tests/support/wait_until.h"

namespace Tesu::Bpf {
namespace {

using android::base::unique_fd;

constexpr uint64_t BOTH_CLASSES = FLAG_CORE_ENABLED | FLAG_NORMAL_ENABLED;

// Runs `body` in a child process and returns its id. The bare system call: a sanitizer would start
// a thread of its own in each child.
pid_t Fork(const std::function<void()>& body) {
    const auto pid = static_cast<pid_t>(syscall(SYS_clone, SIGCHLD, 0, 0, 0, 0));
    if (pid == 0) {
        body();
        _exit(0);
    }
    return pid;
}

void Reap(pid_t pid) {
    ASSERT_EQ(waitpid(pid, nullptr, 0), pid);
}

struct Pipe {
    Pipe() {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) == 0) {
            readEnd.reset(ends[0]);
            writeEnd.reset(ends[1]);
        }
    }
    unique_fd readEnd;
    unique_fd writeEnd;
};

// Ends with the alarm's signal rather than wait for ever.
void ReadByte(const Pipe& pipe) {
    char byte = 0;
    alarm(20);
    ASSERT_EQ(read(pipe.readEnd.get(), &byte, 1), 1);
    alarm(0);
}

void WriteByte(const Pipe& pipe) {
    ASSERT_EQ(write(pipe.writeEnd.get(), "x", 1), 1);
}

class BpfTest : public KernelTest {
  protected:
    void loadAndAttach(LoadOptions options) {
        std::string messages;
        options.ringBytes = RING_BYTES;
        ASSERT_TRUE(LoadPins(options, &messages)) << messages;
        for (const char* event : {"sched_sched_switch", "sched_sched_process_exit",
                                  "sched_sched_process_fork", "kmem_rss_stat"}) {
            attached.push_back(AttachPinnedTracepoint(PinnedRing::CORE, event));
            ASSERT_TRUE(attached.back().ok()) << event << ": " << strerror(errno);
        }
        for (const char* event : {"sched_sched_process_exit", "cgroup_cgroup_attach_task"}) {
            attached.push_back(AttachPinnedTracepoint(PinnedRing::GPL, event));
            ASSERT_TRUE(attached.back().ok()) << event << ": " << strerror(errno);
        }
        core = std::make_unique<RecordCollector>(PinnedRing::CORE);
    }

    void enableAll() {
        SetRingFlags(PinnedRing::CORE, BOTH_CLASSES);
        SetRingFlags(PinnedRing::GPL, BOTH_CLASSES);
    }

    void TearDown() override {
        // Every test but those about full buffers relies on having seen everything.
        if (core != nullptr && !expectLoss) {
            EXPECT_EQ(ReadLostRecords(OpenPinnedMap(PinnedRing::CORE, "ringbuf_status").get()), 0U);
        }
    }

    std::vector<RawTaskCreateEvent> creates(int32_t pid, int32_t taskType) {
        return select<RawTaskCreateEvent>(RAW_EVENT_TASK_CREATE, pid, taskType);
    }
    std::vector<RawTaskExitEvent> exits(int32_t pid, int32_t taskType) {
        return select<RawTaskExitEvent>(RAW_EVENT_TASK_EXIT, pid, taskType);
    }

    // Whether that many exits of the type were told for the process before patience ran out.
    bool waitForExits(int32_t pid, int32_t taskType, size_t count) {
        return WaitUntil([&] {
            drain();
            return exits(pid, taskType).size() >= count;
        });
    }

    // Takes what else may come: a record too many would be among it.
    void settle() {
        Reap(Fork([] {}));
        drain();
    }

    // Takes what is in the core ring.
    void drain() {
        core->drain();
        for (size_t i = known; i < core->records().size(); ++i) {
            ofProcess[pidOf(core->records()[i])].push_back(i);
        }
        known = core->records().size();
    }

    // Positions, in the order of the ring, of the records that are about the process.
    const std::vector<size_t>& positions(int32_t pid) { return ofProcess[pid]; }

    uint32_t typeAt(size_t position) const {
        return RecordCollector::Read<RawEventHeader>(core->records()[position]).type;
    }

    static int32_t pidOf(const std::string& bytes) {
        return RecordCollector::Read<RawEventHeader>(bytes).type == RAW_EVENT_TASK_CREATE
                   ? RecordCollector::Read<RawTaskCreateEvent>(bytes).pid
                   : RecordCollector::Read<RawTaskExitEvent>(bytes).pid;
    }

    // Much can happen on a busy machine before a test looks again.
    static constexpr uint32_t RING_BYTES = 32 << 20;

    std::unique_ptr<RecordCollector> core;
    bool expectLoss = false;

  private:
    template <typename T>
    std::vector<T> select(uint32_t type, int32_t pid, int32_t taskType) {
        std::vector<T> found;
        for (const size_t position : positions(pid)) {
            const T record = RecordCollector::Read<T>(core->records()[position]);
            if (record.header.type == type && record.taskType == taskType) {
                found.push_back(record);
            }
        }
        return found;
    }

    size_t known = 0;  // records that are in ofProcess
    std::map<int32_t, std::vector<size_t>> ofProcess;
    std::vector<unique_fd> attached;
};

enum class LayoutUnderTest {
    FOUND,  // as the loader finds it
    POOR,   // as on a kernel without type information, without group_dead and without atomics
};

class BpfProgramsTest : public BpfTest, public testing::WithParamInterface<LayoutUnderTest> {
  protected:
    void SetUp() override {
        BpfTest::SetUp();
        if (IsSkipped()) {
            return;
        }
        LoadOptions options = BuiltObjects();
        if (GetParam() == LayoutUnderTest::POOR) {
            options.findLayout = [] {
                LayoutSources sources;
                sources.members = MemberSource::GUESSING;
                KernelLayout layout = FindKernelLayout(sources);
                layout.values.exitGroupDead = TESU_UNKNOWN_OFFSET;
                layout.values.hasAtomics = 0;
                layout.unusable.clear();  // programs that know too little do nothing
                return layout;
            };
        }
        loadAndAttach(options);
    }
};

INSTANTIATE_TEST_SUITE_P(Layouts, BpfProgramsTest,
                         testing::Values(LayoutUnderTest::FOUND, LayoutUnderTest::POOR),
                         [](const auto& info) {
                             return info.param == LayoutUnderTest::FOUND ? "Found" : "Poor";
                         });

TEST_P(BpfProgramsTest, TellsEveryShortProcessOnce) {
    constexpr int PROCESSES = 500;
    constexpr int OTHERS_CHILDREN = 20;
    constexpr uid_t OTHER_UID = 12345;
    enableAll();
    const auto before = core->ofType<RawEventHeader>(RAW_EVENT_TASK_CREATE).size();
    std::map<pid_t, pid_t> parents;
    for (int i = 0; i < PROCESSES; ++i) {
        const pid_t pid = Fork([] {});
        Reap(pid);
        parents[pid] = getpid();
        drain();
    }
    ASSERT_EQ(before, 0U);
    ASSERT_EQ(parents.size(), size_t{PROCESSES});

    Pipe pids;
    const pid_t other = Fork([&] {
        setuid(OTHER_UID);
        for (int i = 0; i < OTHERS_CHILDREN; ++i) {
            const pid_t pid = Fork([] {});
            waitpid(pid, nullptr, 0);
            TEMP_FAILURE_RETRY(write(pids.writeEnd.get(), &pid, sizeof(pid)));
        }
    });
    Reap(other);
    parents[other] = getpid();
    for (int i = 0; i < OTHERS_CHILDREN; ++i) {
        pid_t pid = 0;
        ASSERT_EQ(read(pids.readEnd.get(), &pid, sizeof(pid)), ssize_t{sizeof(pid)});
        parents[pid] = other;
    }

    for (const auto& [pid, parent] : parents) {
        ASSERT_TRUE(waitForExits(pid, RAW_TASK_PROCESS, 1)) << pid;
    }
    settle();
    for (const auto& [pid, parent] : parents) {
        const auto created = creates(pid, RAW_TASK_PROCESS);
        ASSERT_EQ(created.size(), 1U) << pid;
        EXPECT_EQ(created[0].ppid, parent);
        EXPECT_EQ(created[0].uid, parent == other ? int32_t{OTHER_UID} : 0);
        EXPECT_STREQ(created[0].comm, "bpf_programs_te");
        const auto ended = exits(pid, RAW_TASK_PROCESS);
        ASSERT_EQ(ended.size(), 1U) << pid;
        EXPECT_LT(created[0].header.time, ended[0].header.time);
        EXPECT_TRUE(creates(pid, RAW_TASK_THREAD).empty());
        EXPECT_TRUE(exits(pid, RAW_TASK_THREAD).empty());
        EXPECT_EQ(typeAt(positions(pid).front()), uint32_t{RAW_EVENT_TASK_CREATE}) << pid;
    }
}

TEST_P(BpfProgramsTest, CountsAThousandThreads) {
    constexpr size_t THREADS = 1000;
    constexpr size_t AT_ONCE = 20;
    enableAll();
    for (size_t started = 0; started < THREADS; started += AT_ONCE) {
        std::vector<std::thread> threads;
        for (size_t i = 0; i < AT_ONCE; ++i) {
            threads.emplace_back([] {});
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
        drain();
    }
    ASSERT_TRUE(waitForExits(getpid(), RAW_TASK_THREAD, THREADS));
    settle();
    const auto created = creates(getpid(), RAW_TASK_THREAD);
    EXPECT_EQ(created.size(), THREADS);
    EXPECT_TRUE(std::all_of(created.begin(), created.end(),
                            [](const auto& record) { return record.ppid == getpid(); }));
    EXPECT_EQ(exits(getpid(), RAW_TASK_THREAD).size(), THREADS);
    EXPECT_TRUE(exits(getpid(), RAW_TASK_PROCESS).empty());
}

TEST_P(BpfProgramsTest, TellsTheEndOfAProcessWithItsLastThread) {
    enableAll();
    const pid_t pid = Fork([] {
        prctl(PR_SET_NAME, "tesu-first");
        std::thread([] {
            prctl(PR_SET_NAME, "tesu-last");
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }).detach();
        // Leaves the other thread alone; pthread_exit() would unwind into the test.
        syscall(SYS_exit, 0);
    });
    Reap(pid);
    ASSERT_TRUE(waitForExits(pid, RAW_TASK_PROCESS, 1));
    settle();
    const auto ofThread = exits(pid, RAW_TASK_THREAD);
    const auto ofProcess = exits(pid, RAW_TASK_PROCESS);
    ASSERT_EQ(ofThread.size(), 1U);
    ASSERT_EQ(ofProcess.size(), 1U);
    EXPECT_STREQ(ofThread[0].comm, "tesu-first");
    EXPECT_STREQ(ofProcess[0].comm, "tesu-first");
    EXPECT_GT(ofProcess[0].header.time, ofThread[0].header.time);
    EXPECT_EQ(creates(pid, RAW_TASK_PROCESS).size(), 1U);
    EXPECT_EQ(creates(pid, RAW_TASK_THREAD).size(), 1U);
}

TEST_P(BpfProgramsTest, TellsOneEndWhenAllThreadsEndTogether) {
    constexpr int PROCESSES = 60;
    constexpr size_t THREADS = 8;
    enableAll();
    for (int i = 0; i < PROCESSES; ++i) {
        const pid_t pid = Fork([] {
            for (size_t thread = 0; thread < THREADS; ++thread) {
                std::thread([] { pause(); }).detach();
            }
            _exit(0);
        });
        Reap(pid);
        ASSERT_TRUE(waitForExits(pid, RAW_TASK_PROCESS, 1));
        ASSERT_TRUE(waitForExits(pid, RAW_TASK_THREAD, THREADS));
        settle();
        EXPECT_EQ(exits(pid, RAW_TASK_PROCESS).size(), 1U);
        EXPECT_EQ(exits(pid, RAW_TASK_THREAD).size(), THREADS);
        EXPECT_EQ(creates(pid, RAW_TASK_THREAD).size(), THREADS);
    }
}

TEST_P(BpfProgramsTest, KnowsTheParentOfASibling) {
    enableAll();
    Pipe told;
    const pid_t child = Fork([&] {
        const auto sibling =
            static_cast<pid_t>(syscall(SYS_clone, CLONE_PARENT | SIGCHLD, 0, 0, 0, 0));
        if (sibling == 0) {
            _exit(0);
        }
        TEMP_FAILURE_RETRY(write(told.writeEnd.get(), &sibling, sizeof(sibling)));
    });
    Reap(child);
    pid_t sibling = 0;
    ASSERT_EQ(read(told.readEnd.get(), &sibling, sizeof(sibling)), ssize_t{sizeof(sibling)});
    Reap(sibling);
    ASSERT_TRUE(waitForExits(sibling, RAW_TASK_PROCESS, 1));
    const auto created = creates(sibling, RAW_TASK_PROCESS);
    ASSERT_EQ(created.size(), 1U);
    EXPECT_EQ(created[0].ppid, getpid());
}

// The kernel puts a thread into the process without a fork; what was not told to begin does not
// end.
TEST_P(BpfProgramsTest, KeepsSilentAboutThreadsOfTheKernelsMaking) {
    enableAll();
    Pipe result;
    const pid_t pid = Fork([&] {
        io_uring_params parameters = {};
        parameters.flags = IORING_SETUP_SQPOLL;
        const auto ring = static_cast<int>(syscall(SYS_io_uring_setup, 4, &parameters));
        close(ring);
        const auto threads = [] {
            return std::distance(std::filesystem::directory_iterator("/proc/self/task"), {});
        };
        if (ring >= 0 && WaitUntil([&] { return threads() == 1; })) {
            WriteByte(result);
        }
    });
    Reap(pid);
    result.writeEnd.reset();
    char byte = 0;
    if (read(result.readEnd.get(), &byte, 1) != 1) {
        GTEST_SKIP() << "no io_uring";
    }
    ASSERT_TRUE(waitForExits(pid, RAW_TASK_PROCESS, 1));
    settle();
    EXPECT_TRUE(exits(pid, RAW_TASK_THREAD).empty());
    EXPECT_EQ(exits(pid, RAW_TASK_PROCESS).size(), 1U);
}

TEST_P(BpfProgramsTest, TellsMemoryOfTheProcessThatUsesIt) {
    constexpr size_t BYTES = size_t{64} << 20;
    constexpr int32_t ANONYMOUS = 1;
    enableAll();
    const pid_t pid = Fork([] {
        void* const memory =
            mmap(nullptr, BYTES, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        std::memset(memory, 1, BYTES);
    });
    Reap(pid);
    ASSERT_TRUE(waitForExits(pid, RAW_TASK_PROCESS, 1));
    std::vector<int64_t> sizes;  // of anonymous memory, what the child inherited included
    for (const size_t position : positions(pid)) {
        if (typeAt(position) != RAW_EVENT_RSS_STAT) {
            continue;
        }
        const auto record = RecordCollector::Read<RawRssStatEvent>(core->records()[position]);
        EXPECT_GE(record.member, 0);
        EXPECT_LE(record.member, 3);
        EXPECT_EQ(record.size % sysconf(_SC_PAGESIZE), 0);
        if (record.member == ANONYMOUS) {
            sizes.push_back(record.size);
        }
    }
    ASSERT_FALSE(sizes.empty());
    const auto [least, most] = std::minmax_element(sizes.begin(), sizes.end());
    // The kernel counts on each CPU by itself and adds up now and then.
    constexpr int64_t MARGIN = int64_t{4} << 20;
    EXPECT_NEAR(*most - *least, int64_t{BYTES}, MARGIN);
    EXPECT_EQ(typeAt(positions(pid).front()), uint32_t{RAW_EVENT_TASK_CREATE});
}

// What a fork copies is counted while the parent runs, and what an exec drops is told for memory
// that is no longer the process's.
TEST_P(BpfProgramsTest, TellsTheMemoryThatAForkCopiesAndAnExecDrops) {
    constexpr size_t BYTES = size_t{16} << 20;
    constexpr int64_t MARGIN = int64_t{4} << 20;
    constexpr int32_t ANONYMOUS = 1;
    constexpr int32_t SHARED = 3;
    const auto touch = [](int kind) {
        void* const memory =
            mmap(nullptr, BYTES, PROT_READ | PROT_WRITE, kind | MAP_ANONYMOUS, -1, 0);
        std::memset(memory, 1, BYTES);
        return memory;
    };
    void* const copied = touch(MAP_PRIVATE);
    enableAll();
    const pid_t pid = Fork([&] {
        touch(MAP_SHARED);
        execl("/bin/true", "true", nullptr);
    });
    Reap(pid);
    munmap(copied, BYTES);
    ASSERT_TRUE(waitForExits(pid, RAW_TASK_PROCESS, 1));
    std::map<int32_t, std::vector<int64_t>> sizes;  // by member, in order
    for (const size_t position : positions(pid)) {
        if (typeAt(position) == RAW_EVENT_RSS_STAT) {
            const auto record = RecordCollector::Read<RawRssStatEvent>(core->records()[position]);
            sizes[record.member].push_back(record.size);
        }
    }
    ASSERT_FALSE(sizes[ANONYMOUS].empty());
    EXPECT_GT(sizes[ANONYMOUS].front(), int64_t{BYTES} - MARGIN);
    EXPECT_LT(sizes[ANONYMOUS].back(), MARGIN);
    ASSERT_FALSE(sizes[SHARED].empty());
    EXPECT_NEAR(*std::max_element(sizes[SHARED].begin(), sizes[SHARED].end()), int64_t{BYTES},
                MARGIN);
    EXPECT_EQ(sizes[SHARED].back(), 0);
}

TEST_P(BpfProgramsTest, IsSilentUntilAClassIsEnabled) {
    const auto run = [] {
        for (int i = 0; i < 20; ++i) {
            Reap(Fork([] {}));
        }
    };
    run();
    drain();
    EXPECT_TRUE(core->records().empty());
    SetRingFlags(PinnedRing::CORE, FLAG_NORMAL_ENABLED);
    Pipe gate;
    const pid_t early = Fork([&] { ReadByte(gate); });
    run();
    drain();
    EXPECT_TRUE(core->records().empty());

    // A task from before is not told as new, its end is told.
    SetRingFlags(PinnedRing::CORE, FLAG_CORE_ENABLED);
    WriteByte(gate);
    Reap(early);
    ASSERT_TRUE(waitForExits(early, RAW_TASK_PROCESS, 1));
    EXPECT_TRUE(creates(early, RAW_TASK_PROCESS).empty());
}

TEST_P(BpfProgramsTest, TellsMovesBetweenCgroups) {
    char mountPoint[] = "/tmp/tesu-cgroup-XXXXXX";
    ASSERT_NE(mkdtemp(mountPoint), nullptr);
    ASSERT_EQ(mount("none", mountPoint, "cgroup2", 0, nullptr), 0) << strerror(errno);
    const std::string name = "tesu-test-" + std::to_string(getpid());
    const std::string group = std::string(mountPoint) + "/" + name;
    ASSERT_EQ(mkdir(group.c_str(), 0755), 0) << strerror(errno);
    struct stat status = {};
    stat(group.c_str(), &status);
    enableAll();
    RecordCollector gpl(PinnedRing::GPL);
    Pipe gate;
    const pid_t pid = Fork([&] {
        prctl(PR_SET_NAME, "tesu-moved");
        ReadByte(gate);
    });
    EXPECT_TRUE(WaitUntil([&] {  // until it has its name
        std::string comm;
        std::ifstream("/proc/" + std::to_string(pid) + "/comm") >> comm;
        return comm == "tesu-moved";
    }));
    std::ofstream(group + "/cgroup.procs") << pid;
    EXPECT_TRUE(WaitUntil([&] {
        gpl.drain();
        const auto moves = gpl.ofType<RawCgroupAttachEvent>(RAW_EVENT_CGROUP_ATTACH);
        return std::any_of(moves.begin(), moves.end(),
                           [&](const auto& move) { return move.pid == pid; });
    }));
    WriteByte(gate);
    Reap(pid);
    for (const auto& move : gpl.ofType<RawCgroupAttachEvent>(RAW_EVENT_CGROUP_ATTACH)) {
        if (move.pid == pid) {
            EXPECT_EQ("/" + name, move.path);
            EXPECT_STREQ(move.comm, "tesu-moved");
            // A 32-bit kernel has more than the inode's number in the upper half.
            EXPECT_EQ(static_cast<uint32_t>(move.cgroupId), static_cast<uint32_t>(status.st_ino));
            EXPECT_EQ(move.level, 1);
            EXPECT_EQ(move.padding, 0);
        }
    }
    EXPECT_TRUE(WaitUntil([&] { return rmdir(group.c_str()) == 0; }));
    umount(mountPoint);
    rmdir(mountPoint);
}

// Functions that stand in for the kernel's: the programs are attached to them as they are to those.
extern "C" {
__attribute__((noinline, visibility("default"))) void FakeFdInstall() {
    asm volatile("");
}
__attribute__((noinline, visibility("default"))) void FakeFilpClose() {
    asm volatile("");
}
__attribute__((noinline, visibility("default"))) void FakeDmaBufFunction(uint64_t first,
                                                                         uint64_t second) {
    asm volatile("" ::"r"(first), "r"(second));
}
__attribute__((noinline, visibility("default"))) void FakeDmaBufRelease(uint64_t first,
                                                                        uint64_t second) {
    asm volatile("" ::"r"(first), "r"(second));
}
}

TEST_P(BpfProgramsTest, CountsOpenDescriptors) {
    const unique_fd install = AttachPinnedToFunction(PinnedRing::CORE, "enter_fd_install",
                                                     reinterpret_cast<const void*>(&FakeFdInstall));
    const unique_fd close = AttachPinnedToFunction(PinnedRing::CORE, "return_filp_close",
                                                   reinterpret_cast<const void*>(&FakeFilpClose));
    if (!install.ok() || !close.ok()) {
        GTEST_SKIP() << "no uprobes: " << strerror(errno);
    }
    const unique_fd map = OpenPinnedMap(PinnedRing::CORE, "open_fd_caller_map");
    const auto openFds = [&](uint32_t pid) -> int64_t {
        OpenFdCaller caller = {};
        return bpf_map_lookup_elem(map.get(), &pid, &caller) == 0
                   ? static_cast<int64_t>(caller.openFds)
                   : -1;
    };
    FakeFdInstall();
    EXPECT_EQ(openFds(getpid()), -1);
    enableAll();
    FakeFilpClose();
    EXPECT_EQ(openFds(getpid()), -1);
    for (int i = 0; i < 20; ++i) {
        FakeFdInstall();
    }
    EXPECT_EQ(openFds(getpid()), 20);

    Pipe ready;
    Pipe gate;
    const pid_t child = Fork([&] {
        FakeFdInstall();
        WriteByte(ready);
        ReadByte(gate);
    });
    ReadByte(ready);
    EXPECT_EQ(openFds(child), 21);
    EXPECT_EQ(openFds(getpid()), 20);
    WriteByte(gate);
    Reap(child);
    ASSERT_TRUE(waitForExits(child, RAW_TASK_PROCESS, 1));
    EXPECT_TRUE(WaitUntil([&] { return openFds(child) == -1; }));

    for (int i = 0; i < 30; ++i) {
        FakeFilpClose();
    }
    EXPECT_EQ(openFds(getpid()), 0);
    drain();
    std::vector<std::pair<int64_t, int64_t>> told;  // now and before
    for (const auto& record : core->ofType<RawFdUpdateEvent>(RAW_EVENT_FD_UPDATE)) {
        if (record.pid == getpid()) {
            told.emplace_back(record.openFds, record.reportedFds);
            EXPECT_EQ(record.uid, 0);
            EXPECT_STREQ(record.comm, "bpf_programs_te");
        }
    }
    const std::vector<std::pair<int64_t, int64_t>> expected = {{9, 1}, {17, 9}, {9, 17}, {1, 9}};
    EXPECT_EQ(told, expected);
}

TEST_P(BpfProgramsTest, KeepsAccountOfDmaBufs) {
    if (GetParam() == LayoutUnderTest::POOR) {
        GTEST_SKIP() << "needs offsets that only type information tells";
    }
    const unique_fd setup =
        AttachPinnedToFunction(PinnedRing::GPL, "enter_dma_buf_stats_setup",
                               reinterpret_cast<const void*>(&FakeDmaBufFunction));
    const unique_fd release =
        AttachPinnedToFunction(PinnedRing::GPL, "enter_dma_buf_file_release",
                               reinterpret_cast<const void*>(&FakeDmaBufRelease));
    if (!setup.ok() || !release.ok()) {
        GTEST_SKIP() << "no uprobes: " << strerror(errno);
    }
    std::string error;
    const auto memory = RecordInjector::Open(PinnedRing::GPL, &error);
    ASSERT_NE(memory, nullptr) << error;
    const TesuKernelLayout layout = FindKernelLayout().values;

    // A dma_buf, its file and its inode in kernel memory; only what the programs read is set.
    constexpr size_t INODE = 8192;
    constexpr size_t FILE = 16384;
    std::vector<char> image(24576);
    const uint64_t address = memory->fillKernelMemory(image.data(), image.size());
    ASSERT_NE(address, 0U);
    const auto place = [&](uint64_t inode, uint64_t size) {
        const uint64_t inodeAddress = address + INODE;
        std::memcpy(&image[layout.dmaBufSize], &size, sizeof(size));
        std::memcpy(&image[INODE + layout.inodeIno], &inode, sizeof(inode));
        std::memcpy(&image[FILE + layout.fileInode], &inodeAddress, sizeof(inodeAddress));
        ASSERT_EQ(memory->fillKernelMemory(image.data(), image.size()), address);
    };
    const auto makeBuffer = [&](uint64_t inode, uint64_t size) {
        place(inode, size);
        FakeDmaBufFunction(address, address + FILE);
    };
    const auto releaseBuffer = [&](uint64_t inode) {
        place(inode, 0);
        FakeDmaBufRelease(address + INODE, address + FILE);
    };

    makeBuffer(100, 1 << 20);  // not enabled
    enableAll();
    RecordCollector gpl(PinnedRing::GPL);
    makeBuffer(101, 4096);
    makeBuffer(102, uint64_t{5} << 30);
    releaseBuffer(101);
    releaseBuffer(101);  // no longer there
    releaseBuffer(100);  // never seen
    releaseBuffer(102);
    Reap(Fork([&] { makeBuffer(103, 8192); }));
    // The owner is gone with its total, the buffer is not.
    ASSERT_TRUE(WaitUntil([] {
        uint32_t key = 0;
        return bpf_map_get_next_key(OpenPinnedMap(PinnedRing::GPL, "dmabuf_size_map").get(),
                                    nullptr, &key) == 0 &&
               key == static_cast<uint32_t>(getpid()) &&
               bpf_map_get_next_key(OpenPinnedMap(PinnedRing::GPL, "dmabuf_size_map").get(), &key,
                                    &key) != 0;
    }));
    releaseBuffer(103);
    gpl.drain();
    std::vector<int64_t> totals;
    for (const auto& record : gpl.ofType<RawDmabufAllocEvent>(RAW_EVENT_DMABUF_SIZE)) {
        if (record.pid == getpid()) {
            totals.push_back(record.size);
        }
    }
    const int64_t large = int64_t{5} << 30;
    EXPECT_EQ(totals, (std::vector<int64_t>{4096, 4096 + large, large, 0}));
    EXPECT_EQ(gpl.ofType<RawDmabufAllocEvent>(RAW_EVENT_DMABUF_SIZE).size(), 5U);
}

TEST_P(BpfProgramsTest, TellsThatARealRingIsFull) {
    expectLoss = true;
    enableAll();
    // Nobody reads; every process makes records. Without a reader there is no end to wait for.
    ASSERT_TRUE(WaitUntil([] {
        Reap(Fork([] {
            std::vector<char> memory(size_t{32} << 20, 1);
            asm volatile("" ::"r"(memory.data()));
        }));
        return (ReadRingStatus(PinnedRing::CORE, RING_STATUS_FLAGS) & FLAG_RINGBUF_FULL) != 0;
    }));
    SetRingFlags(PinnedRing::CORE, 0);
    const uint64_t available = ReadRingStatus(PinnedRing::CORE, RING_AVAIL_DATA);
    const uint64_t size = ReadRingStatus(PinnedRing::CORE, RING_SIZE);
    EXPECT_EQ(size, RING_BYTES);
    EXPECT_GT(available, size - 4096);
    EXPECT_LE(available, size);
    EXPECT_EQ(ReadRingStatus(PinnedRing::CORE, RING_CONS_POS), 0U);
    EXPECT_EQ(ReadRingStatus(PinnedRing::CORE, RING_PROD_POS), available);
    EXPECT_GT(ReadLostRecords(OpenPinnedMap(PinnedRing::CORE, "ringbuf_status").get()), 0U);
}

// Exact accounts, with records of the test's own in rings where nothing else writes.
class RingAccountTest : public BpfTest, public testing::WithParamInterface<PinnedRing> {
  protected:
    void SetUp() override {
        BpfTest::SetUp();
        if (IsSkipped()) {
            return;
        }
        std::string messages;
        LoadOptions options = BuiltObjects();
        options.ringBytes = SMALL_RING_BYTES;
        ASSERT_TRUE(LoadPins(options, &messages)) << messages;
        SetRingFlags(GetParam(), BOTH_CLASSES);
        std::string error;
        injector = RecordInjector::Open(GetParam(), &error);
        ASSERT_NE(injector, nullptr) << error;
        collector = std::make_unique<RecordCollector>(GetParam());
        status = OpenPinnedMap(GetParam(), "ringbuf_status");
    }

    static constexpr uint32_t SMALL_RING_BYTES = 1 << 20;
    std::unique_ptr<RecordInjector> injector;
    std::unique_ptr<RecordCollector> collector;
    unique_fd status;
};

INSTANTIATE_TEST_SUITE_P(Rings, RingAccountTest, testing::Values(PinnedRing::CORE, PinnedRing::GPL),
                         [](const auto& info) {
                             return info.param == PinnedRing::CORE ? "Core" : "Gpl";
                         });

TEST_P(RingAccountTest, ProducedIsReceivedPlusLost) {
    RawRssStatEvent record = {};
    record.header.type = RAW_EVENT_RSS_STAT;
    record.pid = 4711;
    std::vector<char> bytes(1024);
    std::memcpy(bytes.data(), &record, sizeof(record));
    RecordInjector::Result result;
    std::set<uint64_t> sequences;
    uint64_t next = 0;
    for (const uint32_t size : {32U, 33U, 1021U}) {
        for (int round = 0; round < 4; ++round) {
            const auto part = injector->injectSequence(bytes.data(), size, next, 20000);
            next += 20000;
            result.sent += part.sent;
            result.refused += part.refused;
            collector->drain();
        }
    }
    for (const auto& received : collector->ofType<RawRssStatEvent>(RAW_EVENT_RSS_STAT)) {
        EXPECT_TRUE(sequences.insert(received.header.time).second);
        EXPECT_EQ(received.pid, 4711);
    }
    EXPECT_GT(result.refused, 0U);
    EXPECT_EQ(result.sent + result.refused, next);
    EXPECT_EQ(sequences.size(), result.sent);
    EXPECT_EQ(ReadLostRecords(status.get()), result.refused);
    EXPECT_EQ(ReadRingStatus(GetParam(), RING_STATUS_FLAGS), FLAG_RINGBUF_FULL | BOTH_CLASSES);
    EXPECT_EQ(ReadRingStatus(GetParam(), RING_SIZE), SMALL_RING_BYTES);
    EXPECT_EQ(ReadRingStatus(GetParam(), RING_PROD_POS) - ReadRingStatus(GetParam(), RING_CONS_POS),
              ReadRingStatus(GetParam(), RING_AVAIL_DATA));
}

TEST_P(RingAccountTest, KeepsRecordsOfAnySize) {
    for (const uint32_t size : {16U, 17U, 40U, 4095U, 65535U, 65536U}) {
        std::string record(size, static_cast<char>(size));
        ASSERT_EQ(injector->inject(record.data(), size), 1U) << size;
        ASSERT_EQ(collector->drain(), 1);
        EXPECT_EQ(collector->records().back(), record);
    }
    EXPECT_EQ(ReadLostRecords(status.get()), 0U);
}

}  // namespace
}  // namespace Tesu::Bpf
