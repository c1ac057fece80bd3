// SPDX-License-Identifier: Apache-2.0
//
// A program that does to a machine what the service is there to notice.
//
//   storm processes N    N processes that end at once, a few at a time; then ends itself
//   storm seconds N      the same for N seconds
//   storm threads N      N threads that end at once, a hundred at a time, and KEPT_THREADS that
//   stay storm children N     N children: every third stays as it is, every third becomes another
//                        program, every third becomes one and is killed
//   storm grow SECONDS   after that time GROWN_THREADS threads and GROWN_BYTES of memory more
//   storm open N         N more open descriptors
//   storm hold N         N children that stay as they are
//
// Says "done COUNT" when that is done. Those that stay, stay until the program is killed.
#include "tests/support/storm.h"

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
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace {

using std::chrono::steady_clock;

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
        std::perror("storm: fork");
        std::exit(1);
    }
    return child;
}

void Stay() {
    while (true) {
        pause();
    }
}

void Become() {
    execl("/bin/sleep", "sleep", "600", nullptr);
}

int Processes(const std::function<bool(int)>& goOn) {
    constexpr int AT_A_TIME = 8;
    int count = 0;
    int running = 0;
    while (goOn(count) || running > 0) {
        while (goOn(count) && running < AT_A_TIME) {
            Fork([] {});
            ++count;
            ++running;
        }
        wait(nullptr);
        --running;
    }
    return count;
}

int Threads(int wanted) {
    constexpr int AT_A_TIME = 100;
    for (int i = 0; i < KEPT_THREADS; ++i) {
        std::thread(Stay).detach();
    }
    for (int count = 0; count < wanted; count += AT_A_TIME) {
        std::vector<std::thread> threads;
        threads.reserve(AT_A_TIME);
        for (int i = 0; i < AT_A_TIME; ++i) {
            threads.emplace_back([] {});
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
    }
    return wanted;
}

int Children(int wanted) {
    for (int i = 0; i < wanted; ++i) {
        const pid_t child = Fork(i % 3 == 0 ? Stay : Become);
        if (i % 3 == 2) {
            // Before, during and after its exec.
            usleep(static_cast<useconds_t>(i * 97 % 2000));
            kill(child, SIGKILL);
            waitpid(child, nullptr, 0);
        }
    }
    return wanted;
}

int Grow(int seconds) {
    std::this_thread::sleep_for(std::chrono::seconds(seconds));
    for (int i = 0; i < GROWN_THREADS; ++i) {
        std::thread(Stay).detach();
    }
    void* const memory =
        mmap(nullptr, GROWN_BYTES, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    std::memset(memory, 1, GROWN_BYTES);
    return 1;
}

int Open(int wanted) {
    for (int i = 0; i < wanted; ++i) {
        open("/dev/null", O_RDONLY | O_CLOEXEC);
    }
    return wanted;
}

int Hold(int wanted) {
    for (int i = 0; i < wanted; ++i) {
        Fork(Stay);
    }
    return wanted;
}

}  // namespace

int main(int argc, char** argv) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const std::string kind = argc == 3 ? argv[1] : "";
    const int number = argc == 3 ? std::atoi(argv[2]) : 0;
    const auto end = steady_clock::now() + std::chrono::seconds(number);
    int count = 0;
    if (kind == "processes") {
        count = Processes([&](int made) { return made < number; });
    } else if (kind == "seconds") {
        count = Processes([&](int) { return steady_clock::now() < end; });
    } else if (kind == "threads") {
        count = Threads(number);
    } else if (kind == "children") {
        count = Children(number);
    } else if (kind == "grow") {
        count = Grow(number);
    } else if (kind == "open") {
        count = Open(number);
    } else if (kind == "hold") {
        count = Hold(number);
    } else {
        std::fprintf(stderr, "usage: storm KIND NUMBER\n");
        return 2;
    }
    std::printf("done %d\n", count);
    std::fflush(stdout);
    if (kind == "processes" || kind == "seconds") {
        return 0;
    }
    Stay();
}
