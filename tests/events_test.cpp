// SPDX-License-Identifier: Apache-2.0
//
// What real tasks do, told by the real programs through the running service to a client that knows
// only the wire format.
#include <android-base/file.h>
#include <android-base/unique_fd.h>
#include <bpf/bpf.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/io_uring.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "loader/kernel_layout.h"
#include "records/contract.h"
#include "tests/support/kernel.h"
#include "tests/support/wait_until.h"

namespace Tesu::Bpf {
namespace {

using android::base::unique_fd;
using testing::ElementsAre;
using testing::Pair;

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

void* Touch(size_t bytes, int kind) {
    void* const memory = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, kind | MAP_ANONYMOUS, -1, 0);
    return std::memset(memory, 1, bytes);
}

// Numbers, at first 0, that processes share with those that they fork.
std::atomic<int>* ShareNumbers() {
    return static_cast<std::atomic<int>*>(std::memset(Touch(4096, MAP_SHARED), 0, 4096));
}

struct Life {
    // In the order of the stream: P process created, E ended, t thread created, e ended, ? the
    // process's memory changed before anything else.
    std::string told;
    RawTaskCreateEvent created{};
    std::vector<std::string> endedAs;                  // names
    std::array<std::vector<int64_t>, 4> memory;        // bytes, by the record's member
    std::vector<std::pair<int64_t, int64_t>> openFds;  // now, as told before
    std::vector<int64_t> dmabufs;                      // bytes
};

// Tasks run beside each other: what comes after the first in alphabetical order.
std::string Sorted(std::string told) {
    std::sort(told.empty() ? told.begin() : told.begin() + 1, told.end());
    return told;
}

class EventsTest : public ServiceTest {
  protected:
    void start(const std::string& kernelVersion = "6.18") {
        // Much can happen on a busy machine before a service looks again.
        constexpr uint32_t RING_BYTES = 32 << 20;
        ASSERT_NO_FATAL_FAILURE(startService(RING_BYTES, kernelVersion));
        subscribe(&client, {RAW_EVENT_RSS_STAT, RAW_EVENT_TASK_CREATE, RAW_EVENT_TASK_EXIT,
                            RAW_EVENT_DMABUF_SIZE, RAW_EVENT_FD_UPDATE});
    }

    void TearDown() override {
        if (service != nullptr) {
            EXPECT_EQ(LostRecords(RING_CORE), 0U);
        }
    }

    // Takes everything that was told until now.
    void read() {
        const pid_t last = Fork([] {});
        Reap(last);
        while (!lives[last].told.ends_with('E')) {
            const auto package = client.next();
            ASSERT_TRUE(package.has_value());
            take(package->body);
        }
    }

    // Runs the body in a process, to the end, and reads what was told of it.
    const Life& live(const std::function<void()>& body) {
        child = Fork(body);
        Reap(child);
        read();
        return lives[child];
    }

    pid_t child = 0;
    std::map<pid_t, Life> lives;

  private:
    void take(const std::string& bytes) {
        const auto header = As<RawEventHeader>(bytes);
        const bool isCreate = header.type == RAW_EVENT_TASK_CREATE;
        Life& life = lives[static_cast<pid_t>(WireClient::wordAt(bytes, isCreate ? 20 : 16))];
        if (isCreate) {
            const auto event = As<RawTaskCreateEvent>(bytes);
            life.told += event.taskType == RAW_TASK_PROCESS ? 'P' : 't';
            life.created = event.taskType == RAW_TASK_PROCESS ? event : life.created;
        } else if (header.type == RAW_EVENT_TASK_EXIT) {
            const auto event = As<RawTaskExitEvent>(bytes);
            life.told += event.taskType == RAW_TASK_PROCESS ? 'E' : 'e';
            life.endedAs.emplace_back(event.comm);
            EXPECT_GT(header.time, life.created.header.time);
        } else if (header.type == RAW_EVENT_RSS_STAT) {
            life.told += life.told.empty() ? "?" : "";
            const auto event = As<RawRssStatEvent>(bytes);
            life.memory.at(event.member).push_back(event.size);
        } else if (header.type == RAW_EVENT_FD_UPDATE) {
            const auto event = As<RawFdUpdateEvent>(bytes);
            life.openFds.emplace_back(event.openFds, event.reportedFds);
        } else {
            life.dmabufs.push_back(As<RawDmabufAllocEvent>(bytes).size);
        }
    }

    WireClient client;
};

TEST_F(EventsTest, EveryShortLifeIsToldOnce) {
    ASSERT_NO_FATAL_FAILURE(start());
    std::vector<pid_t> pids(500);
    for (pid_t& pid : pids) {
        pid = Fork([] {});
        Reap(pid);
    }
    ASSERT_NO_FATAL_FAILURE(read());
    for (const pid_t pid : pids) {
        EXPECT_EQ(lives[pid].told, "PE") << pid;
        EXPECT_EQ(lives[pid].created.ppid, getpid());
        EXPECT_EQ(lives[pid].created.uid, 0);
        EXPECT_STREQ(lives[pid].created.comm, "events_test");
    }
}

TEST_F(EventsTest, ParentAndUserAreThoseOfTheFork) {
    constexpr uid_t OTHER_UID = 12345;
    ASSERT_NO_FATAL_FAILURE(start());
    std::atomic<int>* const made = ShareNumbers();
    live([&] {
        setuid(OTHER_UID);
        made[0] = Fork([] {});
        waitpid(made[0], nullptr, 0);
        const auto sibling =
            static_cast<pid_t>(syscall(SYS_clone, CLONE_PARENT | SIGCHLD, 0, 0, 0, 0));
        if (sibling != 0) {
            made[1] = sibling;
        }
    });
    Reap(made[1]);
    ASSERT_NO_FATAL_FAILURE(read());
    EXPECT_EQ(lives[child].created.uid, 0);
    EXPECT_EQ(lives[made[0]].created.uid, int32_t{OTHER_UID});
    EXPECT_EQ(lives[made[0]].created.ppid, child);
    EXPECT_EQ(lives[made[1]].created.ppid, getpid());
}

TEST_F(EventsTest, AProcessEndsWithItsLastThread) {
    ASSERT_NO_FATAL_FAILURE(start());
    const Life& firstEndsFirst = live([] {
        prctl(PR_SET_NAME, "tesu-first");
        std::thread([] {
            prctl(PR_SET_NAME, "tesu-last");
            WaitUntil([] {
                std::string stat;
                return android::base::ReadFileToString("/proc/self/stat", &stat) &&
                       stat.find(") Z ") != std::string::npos;
            });
        }).detach();
        // Leaves the other thread alone; pthread_exit() would unwind into the test.
        syscall(SYS_exit, 0);
    });
    // The new thread may get its first step after the first thread has ended.
    EXPECT_THAT(firstEndsFirst.told, testing::AnyOf("PteE", "PetE"));
    EXPECT_THAT(firstEndsFirst.endedAs, ElementsAre("tesu-first", "tesu-first"));
    for (int i = 0; i < 60 && !HasFailure(); ++i) {
        const Life& together = live([] {
            for (int thread = 0; thread < 8; ++thread) {
                std::thread([] { pause(); }).detach();
            }
        });
        EXPECT_EQ(Sorted(together.told), "PEeeeeeeeetttttttt");
    }
}

// The kernel puts a thread into the process without a fork; what was not told to begin does not
// end.
TEST_F(EventsTest, ThreadsOfTheKernelsMakingAreNotTold) {
    ASSERT_NO_FATAL_FAILURE(start());
    std::atomic<int>* const hasRun = ShareNumbers();
    const Life& life = live([&] {
        io_uring_params parameters = {};
        parameters.flags = IORING_SETUP_SQPOLL;
        const auto ring = static_cast<int>(syscall(SYS_io_uring_setup, 4, &parameters));
        close(ring);
        *hasRun = ring >= 0 && WaitUntil([] {
                      const std::filesystem::directory_iterator threads("/proc/self/task");
                      return std::distance(begin(threads), end(threads)) == 1;
                  });
    });
    if (*hasRun == 0) {
        GTEST_SKIP() << "no io_uring";
    }
    EXPECT_EQ(life.told, "PE");
}

// What a fork copies is counted while the parent runs, and what an exec drops is told for memory
// that is no longer the process's. The kernel counts on each CPU by itself and adds up now and
// then.
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
    EXPECT_EQ(life.told, "PE");
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

TEST_F(EventsTest, NothingIsToldUntilTheCoreClassIsOn) {
    ASSERT_NO_FATAL_FAILURE(start());
    std::vector<pid_t> silent;
    for (const uint64_t flags : {uint64_t{0}, uint64_t{FLAG_NORMAL_ENABLED}}) {
        SetRingFlags(RING_CORE, flags);
        for (int i = 0; i < 20; ++i) {
            silent.push_back(Fork([] {}));
            Reap(silent.back());
        }
    }
    std::atomic<int>* const isOn = ShareNumbers();
    const pid_t early = Fork([&] { WaitUntil([&] { return *isOn != 0; }); });
    SetRingFlags(RING_CORE, FLAG_CORE_ENABLED | FLAG_NORMAL_ENABLED);
    *isOn = 1;
    Reap(early);
    ASSERT_NO_FATAL_FAILURE(read());
    for (const pid_t pid : silent) {
        EXPECT_EQ(lives[pid].told, "") << pid;
    }
    EXPECT_EQ(lives[early].told.find('P'), std::string::npos);
    EXPECT_TRUE(lives[early].told.ends_with('E'));
}

// Stands in for a function of the kernel's: the programs are attached to it as they are to that.
template <int NUMBER>
[[gnu::noinline]] void Fake(uintptr_t first, uintptr_t second) {
    asm volatile("/* %0 %1 %2 */" : : "i"(NUMBER), "r"(first), "r"(second));
}

struct FakeFunction {
    explicit FakeFunction(void (*function)(uintptr_t, uintptr_t), const std::string& program)
        : call(function),
          attached(AttachToFunction(program, reinterpret_cast<const void*>(function))) {}
    void (*volatile call)(uintptr_t, uintptr_t);
    unique_fd attached;
};

TEST_F(EventsTest, OpenDescriptorsAreToldInStepsOfEight) {
    ASSERT_NO_FATAL_FAILURE(start());
    const FakeFunction install(Fake<0>, TESU_CORE_OBJECT "_kprobe_enter_fd_install");
    const FakeFunction release(Fake<1>, TESU_CORE_OBJECT "_kprobe_return_filp_close");
    if (!install.attached.ok() || !release.attached.ok()) {
        GTEST_SKIP() << "no uprobes: " << strerror(errno);
    }
    // The child's count begins with ours, whatever that is, and never falls below none.
    const uint32_t self = getpid();
    OpenFdCaller caller = {};
    ASSERT_EQ(bpf_map_update_elem(OpenPin(OPEN_FD_MAP).get(), &self, &caller, BPF_ANY), 0);
    const Life& life = live([&] {
        for (int i = 0; i < 20; ++i) {
            install.call(0, 0);
        }
        for (int i = 0; i < 30; ++i) {
            release.call(0, 0);
        }
    });
    EXPECT_THAT(life.openFds, ElementsAre(Pair(8, 0), Pair(16, 8), Pair(8, 16), Pair(0, 8)));
    EXPECT_NE(bpf_map_lookup_elem(OpenPin(OPEN_FD_MAP).get(), &child, &caller), 0);
}

TEST_F(EventsTest, DmaBufsAreOnTheAccountOfTheirMaker) {
    const TesuKernelLayout layout = FindKernelLayout().values;
    if (layout.dmaBufSize == TESU_UNKNOWN_OFFSET) {
        GTEST_SKIP() << "needs offsets that only type information tells";
    }
    ASSERT_NO_FATAL_FAILURE(start("6.1"));
    const FakeFunction setup(Fake<2>, TESU_GPL_OBJECT "_kprobe_enter_dma_buf_stats_setup");
    const FakeFunction release(Fake<3>, TESU_GPL_OBJECT "_kprobe_enter_dma_buf_file_release");
    if (!setup.attached.ok() || !release.attached.ok()) {
        GTEST_SKIP() << "no uprobes: " << strerror(errno);
    }
    // A dma_buf, its file and its inode in kernel memory; only what the programs read is set.
    constexpr size_t INODE = 8192;
    constexpr size_t FILE = 16384;
    RecordInjector kernel(RING_GPL);
    std::vector<char> image(24576);
    const auto place = [&](uint64_t inode, uint64_t size) {
        const uint64_t inodeAddress = kernel.address() + INODE;
        std::memcpy(&image[layout.dmaBufSize], &size, sizeof(size));
        std::memcpy(&image[INODE + layout.inodeIno], &inode, sizeof(inode));
        std::memcpy(&image[FILE + layout.fileInode], &inodeAddress, sizeof(inodeAddress));
        kernel.inject(image.data(), image.size(), 0);
    };
    place(0, 0);
    constexpr int64_t LARGE = int64_t{5} << 30;
    for (const auto& [inode, size] :
         {std::pair(101, int64_t{4096}), {102, LARGE}, {101, 0}, {101, 0}, {102, 0}, {103, 8192}}) {
        place(inode, size);
        if (size != 0) {
            setup.call(kernel.address(), kernel.address() + FILE);
        } else {
            release.call(kernel.address() + INODE, kernel.address() + FILE);
        }
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
