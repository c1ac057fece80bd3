// SPDX-License-Identifier: Apache-2.0
//
// What real tasks do, reported by the real programs through the running service to a client that
// knows only the wire format.
#include <android-base/unique_fd.h>
#include <bcc/libbpf.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <link.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstring>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "loader/kernel_layout.h"
#include "proc/process_snapshot.h"
#include "records/contract.h"
#include "tests/support/kernel.h"
#include "tests/support/records.h"
#include "tests/support/wait_until.h"

namespace Tesu::Bpf {
namespace {

using android::base::unique_fd;
using testing::ElementsAre;

pid_t Fork(const std::function<void()>& body) {
    const pid_t pid = fork();
    if (pid == 0) {
        body();
        _exit(0);
    }
    return pid;
}

void Reap(pid_t pid) {
    ASSERT_EQ(waitpid(pid, nullptr, 0), pid);
}

// Runs the body in a process, to the end.
pid_t RunProcess(const std::function<void()>& body) {
    const pid_t pid = Fork(body);
    Reap(pid);
    return pid;
}

// In a forked process: becomes a workload of several threads. A process that was forked beside
// others' threads should not make its own: it may have copied a lock that one of those held.
template <char KIND>
void Workload() {
    const char kind[] = {KIND, '\0'};
    execl(TESUBPF_WORKLOAD_PATH, "workload", "ends", kind, nullptr);
}

void* Touch(size_t bytes, int kind) {
    void* const memory = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, kind | MAP_ANONYMOUS, -1, 0);
    return std::memset(memory, 1, bytes);
}

struct Life {
    // In the order of the stream: P process created, E ended, t thread created, e ended, ? the
    // process's memory changed before anything else.
    std::string records;
    RawTaskCreateEvent created{};
    std::vector<std::string> endedAs;            // names
    std::array<std::vector<int64_t>, 4> memory;  // bytes, by the record's member
    std::vector<int64_t> dmabufs;                // bytes
};

class EventsTest : public KernelServiceTest {
  protected:
    void start(const std::string& kernelVersion = "6.18") {
        ASSERT_NO_FATAL_FAILURE(startService(LARGE_RING_BYTES, kernelVersion));
        subscribe({RAW_EVENT_RSS_STAT, RAW_EVENT_TASK_CREATE, RAW_EVENT_TASK_EXIT,
                   RAW_EVENT_DMABUF_SIZE});
    }

    void TearDown() override {
        if (waitResult.valid()) {
            EXPECT_EQ(LostRecords(RING_CORE), 0U);
        }
    }

    // Takes everything that was reported until now.
    void read() {
        const pid_t last = RunProcess([] {});
        while (!lives[last].records.ends_with('E')) {
            const auto package = client.next();
            ASSERT_TRUE(package.has_value());
            take(package->body);
        }
    }

    const Life& live(const std::function<void()>& body) {
        const pid_t pid = RunProcess(body);
        read();
        return lives[pid];
    }

    std::map<pid_t, Life> lives;

  private:
    void take(const std::string& bytes) {
        const auto header = As<RawEventHeader>(bytes);
        const bool isCreate = header.type == RAW_EVENT_TASK_CREATE;
        Life& life = lives[static_cast<pid_t>(WireClient::wordAt(bytes, isCreate ? 20 : 16))];
        if (isCreate) {
            const auto event = As<RawTaskCreateEvent>(bytes);
            life.records += event.taskType == RAW_TASK_PROCESS ? 'P' : 't';
            life.created = event.taskType == RAW_TASK_PROCESS ? event : life.created;
        } else if (header.type == RAW_EVENT_TASK_EXIT) {
            const auto event = As<RawTaskExitEvent>(bytes);
            life.records += event.taskType == RAW_TASK_PROCESS ? 'E' : 'e';
            life.endedAs.emplace_back(event.comm);
            EXPECT_GT(header.time, life.created.header.time);
        } else if (header.type == RAW_EVENT_RSS_STAT) {
            life.records += life.records.empty() ? "?" : "";
            const auto event = As<RawRssStatEvent>(bytes);
            life.memory.at(event.member).push_back(event.size);
        } else {
            life.dmabufs.push_back(As<RawDmabufAllocEvent>(bytes).size);
        }
    }
};

TEST_F(EventsTest, EveryShortLifeIsReportedOnceWithItsParentAndUser) {
    constexpr uid_t OTHER_UID = 12345;
    ASSERT_NO_FATAL_FAILURE(start());
    std::vector<pid_t> pids(Scaled(500));
    for (pid_t& pid : pids) {
        pid = RunProcess([] {});
    }
    pids.push_back(RunProcess([] {
        setuid(OTHER_UID);
        syscall(SYS_clone, CLONE_PARENT | SIGCHLD, 0, 0, 0, 0);
    }));
    const pid_t sibling = wait(nullptr);
    pids.push_back(sibling);
    ASSERT_NO_FATAL_FAILURE(read());
    for (const pid_t pid : pids) {
        EXPECT_EQ(lives[pid].records, "PE") << pid;
        EXPECT_EQ(lives[pid].created.ppid, getpid());
        EXPECT_EQ(lives[pid].created.uid, pid == sibling ? int32_t{OTHER_UID} : 0);
        EXPECT_STREQ(lives[pid].created.comm, "events_test");
    }
}

TEST_F(EventsTest, AProcessEndsWithItsLastThread) {
    ASSERT_NO_FATAL_FAILURE(start());
    const Life& firstEndsFirst = live(Workload<'f'>);
    // The new thread may get its first step after the first thread has ended.
    EXPECT_THAT(firstEndsFirst.records, testing::AnyOf("PteE", "PetE"));
    EXPECT_THAT(firstEndsFirst.endedAs, ElementsAre("tesu-first", "tesu-first"));
    for (int i = 0; i < 60 && !HasFailure(); ++i) {
        const Life& together = live(Workload<'t'>);
        // Any of them may be the last, as some kernels find it.
        std::string records = together.records;
        std::sort(records.begin() + (records.empty() ? 0 : 1), records.end());
        EXPECT_EQ(records, "PEeeeeeeeetttttttt");
    }
}

// The kernel puts a thread into the process without a fork; what was not reported to begin
// does not end.
TEST_F(EventsTest, ThreadsOfTheKernelsMakingAreNotReported) {
    ASSERT_NO_FATAL_FAILURE(start());
    const pid_t pid = Fork(Workload<'k'>);
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    if (status != 0) {
        GTEST_SKIP() << "no io_uring";
    }
    ASSERT_NO_FATAL_FAILURE(read());
    EXPECT_EQ(lives[pid].records, "PE");
}

// What a fork copies is counted while the parent runs, and what an exec drops is reported for
// memory that is no longer the process's. The kernel counts on each CPU by itself and adds up now
// and then.
TEST_F(EventsTest, MemoryIsThatOfTheProcessOverForkAndExec) {
    constexpr int64_t BYTES = int64_t{16} << 20;
    constexpr int64_t MARGIN = int64_t{4} << 20;
    ASSERT_NO_FATAL_FAILURE(start());
    Touch(BYTES, MAP_PRIVATE);
    const Life& life = live([] {
        Touch(BYTES, MAP_PRIVATE);
        Touch(BYTES, MAP_SHARED);
        execl("/bin/true", "true", nullptr);
    });
    EXPECT_EQ(life.records, "PE");
    EXPECT_THAT(life.endedAs, ElementsAre("true"));
    const auto& anonymous = life.memory[1];
    const auto& shared = life.memory[3];
    ASSERT_FALSE(anonymous.empty() || shared.empty());
    EXPECT_GT(anonymous.front(), BYTES - MARGIN);
    EXPECT_NEAR(*std::max_element(anonymous.begin(), anonymous.end()) - anonymous.front(), BYTES,
                MARGIN);
    EXPECT_LT(anonymous.back(), MARGIN);
    EXPECT_NEAR(*std::max_element(shared.begin(), shared.end()), BYTES, MARGIN);
    EXPECT_EQ(shared.back(), 0);
}

// What a step holds back comes with the process's next report; what a former memory was reported to
// be is no measure of a new one.
TEST_F(EventsTest, MemoryIsWithinTheStepOverForkAndExec) {
    constexpr int64_t HALF = int64_t{2} << 20;
    constexpr int64_t STEP = 2 * HALF;
    constexpr int64_t BYTES = 4 * STEP;
    constexpr int64_t MARGIN = HALF / 2;
    ASSERT_NO_FATAL_FAILURE(load(LARGE_RING_BYTES, STEP));
    ASSERT_NO_FATAL_FAILURE(start());
    Touch(BYTES, MAP_PRIVATE);
    const pid_t pid = Fork([] {
        Touch(BYTES + HALF, MAP_SHARED);
        Touch(BYTES, MAP_PRIVATE);
        raise(SIGSTOP);
        execl("/bin/true", "true", nullptr);
    });
    ASSERT_EQ(waitpid(pid, nullptr, WUNTRACED), pid);
    const auto process = ProcReader().read(pid);
    ASSERT_NO_FATAL_FAILURE(read());
    kill(pid, SIGCONT);
    const auto memory = lives[pid].memory;
    for (size_t kind = 0; kind < memory.size(); ++kind) {
        const int64_t last = memory[kind].empty() ? 0 : memory[kind].back();
        EXPECT_NEAR(last, process->memory[kind], STEP + MARGIN) << kind;
        EXPECT_LT(memory[kind].size(), 30U) << kind;
    }
    EXPECT_NEAR(memory[3].back(), BYTES + HALF, MARGIN);
    Reap(pid);
    ASSERT_NO_FATAL_FAILURE(read());
    EXPECT_EQ(lives[pid].memory[3].back(), 0);
}

TEST_F(EventsTest, NothingIsReportedUntilTheCoreClassIsOn) {
    ASSERT_NO_FATAL_FAILURE(start());
    std::vector<pid_t> silent(40);
    for (size_t i = 0; i < silent.size(); ++i) {
        SetRingFlags(RING_CORE, i % 2 == 0 ? 0 : FLAG_NORMAL_ENABLED);
        silent[i] = RunProcess([] {});
    }
    const pid_t early = Fork([] { pause(); });
    SetRingFlags(RING_CORE, FLAG_CORE_ENABLED | FLAG_NORMAL_ENABLED);
    kill(early, SIGKILL);
    Reap(early);
    ASSERT_NO_FATAL_FAILURE(read());
    for (const pid_t pid : silent) {
        EXPECT_EQ(lives[pid].records, "") << pid;
    }
    EXPECT_EQ(lives[early].records.find('P'), std::string::npos);
    EXPECT_TRUE(lives[early].records.ends_with('E'));
}

// Stands in for a function of the kernel's: the programs are attached to it as they are to that.
template <int NUMBER>
[[gnu::noinline]] void Fake(uintptr_t first, uintptr_t second) {
    asm volatile("/* %0 %1 %2 */" : : "i"(NUMBER), "r"(first), "r"(second));
}

// Runs the program of a kprobe ("TesuBpfDefineset_kprobe_enter_fd_install") on calls of a function
// of this program instead of the kernel's, in any process, until the result is closed. Invalid
// where the kernel cannot.
unique_fd AttachToFunction(const std::string& program, const void* function) {
    const unique_fd fd = OpenPin("prog_" + program);
    // The function's place in the program's file: its address relative to where the file begins.
    Dl_info info = {};
    dladdr(function, &info);
    const auto offset = static_cast<uint64_t>(static_cast<const char*>(function) -
                                              static_cast<const char*>(info.dli_fbase));
    return unique_fd(bpf_attach_uprobe(fd.get(), BPF_PROBE_ENTRY, (program + "_test").c_str(),
                                       "/proc/self/exe", offset, -1, 0));
}

TEST_F(EventsTest, DmaBufsAreOnTheAccountOfTheirMaker) {
    const TesuKernelLayout layout = FindKernelLayout().values;
    ASSERT_NO_FATAL_FAILURE(start("6.1"));
    void (*volatile const setup)(uintptr_t, uintptr_t) = Fake<0>;
    void (*volatile const release)(uintptr_t, uintptr_t) = Fake<1>;
    const unique_fd attached[] = {
        AttachToFunction(TESU_GPL_OBJECT "_kprobe_enter_dma_buf_stats_setup",
                         reinterpret_cast<const void*>(setup)),
        AttachToFunction(TESU_GPL_OBJECT "_kprobe_enter_dma_buf_file_release",
                         reinterpret_cast<const void*>(release))};
    if (layout.dmaBufSize == TESU_UNKNOWN_OFFSET || !attached[0].ok() || !attached[1].ok()) {
        GTEST_SKIP() << "needs uprobes, and offsets that only type information has";
    }
    // A dma_buf, its file and its inode in kernel memory; only what the programs read is set.
    constexpr size_t INODE = 8192;
    constexpr size_t FILE = 16384;
    std::vector<char> image(24576);
    RecordInjector kernel(RING_GPL);
    kernel.inject(image.data(), image.size(), 0);
    const uintptr_t buffer = kernel.address();
    const uint64_t inodeAddress = buffer + INODE;
    std::memcpy(&image[FILE + layout.fileInode], &inodeAddress, sizeof(inodeAddress));
    constexpr int64_t LARGE = int64_t{5} << 30;
    for (const auto& [inode, size] :
         {std::pair(101, int64_t{4096}), {102, LARGE}, {101, 0}, {101, 0}, {102, 0}, {103, 8192}}) {
        std::memcpy(&image[layout.dmaBufSize], &size, sizeof(size));
        std::memcpy(&image[INODE + layout.inodeIno], &inode, sizeof(inode));
        kernel.inject(image.data(), image.size(), 0);
        size != 0 ? setup(buffer, buffer + FILE) : release(buffer + INODE, buffer + FILE);
    }
    const auto& totals = lives[getpid()].dmabufs;
    WaitUntil([&] {
        read();
        return totals.size() >= 5 || HasFailure();
    });
    EXPECT_THAT(totals, ElementsAre(4096, 4096 + LARGE, LARGE, 0, 8192));
}

}  // namespace
}  // namespace Tesu::Bpf
