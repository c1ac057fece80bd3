// SPDX-License-Identifier: Apache-2.0
//
// A program that does to a machine what the service is there to notice.
//
//   workload processes N    N processes that end at once, a few at a time
//   workload threads N      N threads that end at once, a hundred at a time, and a few that stay
//   workload children N     N children: every third stays as it is, every third becomes another
//                           program, every third becomes one and is killed
//   workload touch -        a mebibyte of memory; prints nothing
//   workload ends HOW       a process of several threads that ends: f when its first thread has
//   ended
//                           before the others, t with all of them together, k when a thread of the
//                           kernel's making has come and gone; status 1: the kernel makes none
//   workload life CGROUP    when it is old enough for reports: a child, open files, a move to the
//                           group, threads and memory; then its end
//
// Prints "done" and, but for the last two, lives on with what stays until it is killed.
#include <fcntl.h>
#include <linux/io_uring.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace {

void Stay() {
    while (true) {
        pause();
    }
}

void StayInThreads() {
    for (int i = 0; i < 20; ++i) {
        std::thread(Stay).detach();
    }
}

pid_t Fork(const std::function<void()>& live) {
    const pid_t child = fork();
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        live();
        _exit(0);
    }
    if (child == -1) {
        std::perror("workload: fork");
        std::exit(1);
    }
    return child;
}

void Processes(int count) {
    constexpr int AT_A_TIME = 8;
    for (int i = 0; i < count + AT_A_TIME; ++i) {
        if (i >= AT_A_TIME) {
            wait(nullptr);
        }
        if (i < count) {
            Fork([] {});
        }
    }
}

void Threads(int count) {
    constexpr int AT_A_TIME = 100;
    StayInThreads();
    for (int i = 0; i < count; i += AT_A_TIME) {
        std::vector<std::jthread> threads(AT_A_TIME);
        for (std::jthread& thread : threads) {
            thread = std::jthread([] {});
        }
    }
}

void Children(int count) {
    const auto become = [] { execl("/proc/self/exe", "workload", "touch", "-", nullptr); };
    for (int i = 0; i < count; ++i) {
        const pid_t child = i % 3 == 0 ? Fork(Stay) : Fork(become);
        if (i % 3 == 2) {
            // Before, during and after its exec.
            usleep(static_cast<useconds_t>(i * 97 % 2000));
            kill(child, SIGKILL);
            waitpid(child, nullptr, 0);
        }
    }
}

bool IsFirstThreadGone() {
    std::string stat;
    std::getline(std::ifstream("/proc/self/stat"), stat);
    return stat.find(") Z ") != std::string::npos;
}

void EndAfterTheFirst() {
    prctl(PR_SET_NAME, "tesu-first");
    std::thread([] {
        prctl(PR_SET_NAME, "tesu-last");
        while (!IsFirstThreadGone()) {
            usleep(1000);
        }
    }).detach();
    syscall(SYS_exit, 0);  // of this thread
}

void EndTogether() {
    for (int i = 0; i < 8; ++i) {
        std::thread(Stay).detach();
    }
    _exit(0);
}

void EndAfterTheKernels() {
    io_uring_params parameters = {};
    parameters.flags = IORING_SETUP_SQPOLL;
    const auto ring = static_cast<int>(syscall(SYS_io_uring_setup, 4, &parameters));
    close(ring);
    const auto countThreads = [] {
        const std::filesystem::directory_iterator threads("/proc/self/task");
        return std::distance(begin(threads), end(threads));
    };
    while (ring >= 0 && countThreads() > 1) {
        usleep(1000);
    }
    _exit(ring >= 0 ? 0 : 1);
}

void Life(const std::string& cgroup) {
    std::this_thread::sleep_for(std::chrono::milliseconds(3200));
    waitpid(Fork([] {}), nullptr, 0);
    for (int i = 0; i < 40; ++i) {
        open("/dev/null", O_RDONLY | O_CLOEXEC);
    }
    std::ofstream(cgroup + "/cgroup.procs") << getpid() << std::flush;
    StayInThreads();
    const std::vector<char> memory(size_t{64} << 20, 1);
}

}  // namespace

int main(int argc, char** argv) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const std::string kind = argc == 3 ? argv[1] : "";
    if (kind == "touch") {
        const std::vector<char> memory(size_t{1} << 20, 1);
        Stay();
    }
    if (kind == "ends") {
        const std::string how = argv[2];
        (how == "f" ? EndAfterTheFirst : how == "t" ? EndTogether : EndAfterTheKernels)();
    }
    if (kind == "life") {
        Life(argv[2]);
        _exit(0);
    }
    const auto work = kind == "processes" ? Processes : kind == "threads" ? Threads : Children;
    work(argc == 3 ? std::atoi(argv[2]) : 0);
    std::puts("done");
    std::fflush(stdout);
    Stay();
}
