// SPDX-License-Identifier: Apache-2.0
//
// A program that does to a machine what the service is there to notice.
//
//   workload processes N    N processes that end at once, a few at a time
//   workload seconds N      the same for N seconds
//   workload threads N      N threads that end at once, a hundred at a time, and a few that stay
//   workload children N     N children: every third stays as it is, every third becomes another
//                           program, every third becomes one and is killed
//   workload touch N        N MiB of memory; says nothing
//   workload life CGROUP    when it is old enough for reports: a child, open files, a move to the
//                           group (none: ""), threads and memory that stay
//
// Says "done COUNT" when that is done. Then the first two end; the others, and those of theirs that
// stay, live until the program is killed.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace {

using std::chrono::steady_clock;

void Stay() {
    while (true) {
        pause();
    }
}

void StayInThreads(int count) {
    for (int i = 0; i < count; ++i) {
        std::thread(Stay).detach();
    }
}

pid_t Fork(const std::function<void()>& live) {
    const pid_t parent = getpid();
    const pid_t child = fork();
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() == parent) {
            live();
        }
        _exit(0);
    }
    if (child == -1) {
        std::perror("workload: fork");
        std::exit(1);
    }
    return child;
}

int Processes(const std::function<bool(int)>& goOn) {
    constexpr int AT_A_TIME = 8;
    int count = 0;
    for (int running = 0; goOn(count) || running > 0; --running) {
        for (; goOn(count) && running < AT_A_TIME; ++running) {
            Fork([] {});
            ++count;
        }
        wait(nullptr);
    }
    return count;
}

int Threads(int wanted) {
    constexpr int AT_A_TIME = 100;
    StayInThreads(20);
    for (int count = 0; count < wanted; count += AT_A_TIME) {
        std::vector<std::thread> threads(AT_A_TIME);
        for (std::thread& thread : threads) {
            thread = std::thread([] {});
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
    }
    return wanted;
}

void Touch(size_t bytes) {
    void* const memory =
        mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    std::memset(memory, 1, bytes);
}

int Children(int wanted) {
    const auto become = [] { execl("/proc/self/exe", "workload", "touch", "1", nullptr); };
    for (int i = 0; i < wanted; ++i) {
        const pid_t child = i % 3 == 0 ? Fork(Stay) : Fork(become);
        if (i % 3 == 2) {
            // Before, during and after its exec.
            usleep(static_cast<useconds_t>(i * 97 % 2000));
            kill(child, SIGKILL);
            waitpid(child, nullptr, 0);
        }
    }
    return wanted;
}

int Life(const std::string& cgroup) {
    constexpr size_t BYTES = size_t{64} << 20;
    std::this_thread::sleep_for(std::chrono::milliseconds(3200));
    waitpid(Fork([] {}), nullptr, 0);
    for (int i = 0; i < 40; ++i) {
        open("/dev/null", O_RDONLY | O_CLOEXEC);
    }
    if (!cgroup.empty() && !(std::ofstream(cgroup + "/cgroup.procs") << getpid() << std::flush)) {
        std::perror(cgroup.c_str());
        std::exit(1);
    }
    StayInThreads(20);
    Touch(BYTES);
    return 1;
}

}  // namespace

int main(int argc, char** argv) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const std::string kind = argc == 3 ? argv[1] : "";
    const int number = argc == 3 ? std::atoi(argv[2]) : 0;
    if (kind == "touch") {
        Touch(static_cast<size_t>(number) << 20);
        Stay();
    }
    const auto end = steady_clock::now() + std::chrono::seconds(number);
    const int count = kind == "processes" ? Processes([&](int made) { return made < number; })
                      : kind == "seconds"
                          ? Processes([&](int) { return steady_clock::now() < end; })
                      : kind == "threads"  ? Threads(number)
                      : kind == "children" ? Children(number)
                      : kind == "life"     ? Life(argv[2])
                                           : 0;
    std::printf("done %d\n", count);
    std::fflush(stdout);
    if (kind != "processes" && kind != "seconds") {
        Stay();
    }
}
