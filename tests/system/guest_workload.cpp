// SPDX-License-Identifier: Apache-2.0
//
// guest_workload: makes the events that the system tests look for. It says each step on the
// standard output, so that the test knows when and what to look for.
//
//   guest_workload dmabufs          makes dma-bufs and says "ready"; lets go of one for each line
//   that
//                                   it reads
//   guest_workload events CGROUP    forks, grows in memory and threads, opens files, moves to
//   CGROUP
#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <list>
#include <string>
#include <thread>
#include <vector>

#include "tests/system/vgem_buffer.h"

namespace {

using android::base::unique_fd;

constexpr int CHILDREN = 5;
constexpr int FILES = 40;
constexpr int THREADS = 30;
constexpr size_t MEMORY = size_t{16} << 20;
// The service does not report on processes that are younger than three seconds.
constexpr std::chrono::milliseconds REPORT_AGE{3200};
// So long live the threads and the memory.
constexpr std::chrono::seconds HOLD{1};

void Say(const std::string& step) {
    std::cout << step << std::endl;
}

int RunDmabufs() {
    std::list<VgemBuffer> buffers;
    buffers.emplace_back(3, "");
    buffers.emplace_back(16, "");
    buffers.emplace_back(5, "named");
    for (const VgemBuffer& buffer : buffers) {
        if (!buffer.ok()) {
            return EXIT_FAILURE;
        }
    }
    Say("ready");
    for (std::string line; !buffers.empty() && std::getline(std::cin, line);) {
        buffers.pop_front();
        Say("released");
    }
    // Alive until it is told to end, so that its total is not forgotten with it.
    for (std::string line; std::getline(std::cin, line);) {
    }
    return EXIT_SUCCESS;
}

void Fork() {
    for (int i = 0; i < CHILDREN; ++i) {
        const pid_t child = fork();
        if (child == 0) {
            _exit(EXIT_SUCCESS);
        }
        waitpid(child, nullptr, 0);
    }
}

void OpenFiles() {
    std::vector<unique_fd> files;
    files.reserve(FILES);
    for (int i = 0; i < FILES; ++i) {
        files.emplace_back(open("/dev/null", O_RDONLY | O_CLOEXEC));
    }
}

bool MoveTo(const std::string& cgroup) {
    std::ofstream file(cgroup + "/cgroup.procs");
    file << getpid() << std::flush;
    return file.good();
}

void GrowAndShrink() {
    void* const memory =
        mmap(nullptr, MEMORY, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory != MAP_FAILED) {
        std::memset(memory, 1, MEMORY);
    }
    std::vector<std::thread> threads;
    threads.reserve(THREADS);
    for (int i = 0; i < THREADS; ++i) {
        threads.emplace_back([] { std::this_thread::sleep_for(HOLD); });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    if (memory != MAP_FAILED) {
        munmap(memory, MEMORY);
    }
}

int RunEvents(const std::string& cgroup) {
    std::this_thread::sleep_for(REPORT_AGE);
    Fork();
    OpenFiles();
    if (!MoveTo(cgroup)) {
        std::cerr << "cannot move to " << cgroup << "\n";
        return EXIT_FAILURE;
    }
    GrowAndShrink();
    Say("done");
    return EXIT_SUCCESS;
}

}  // namespace

int main(int argc, char** argv) {
    const std::vector<std::string> arguments(argv + 1, argv + argc);
    if (arguments.size() == 1 && arguments[0] == "dmabufs") {
        return RunDmabufs();
    }
    if (arguments.size() == 2 && arguments[0] == "events") {
        return RunEvents(arguments[1]);
    }
    std::cerr << "usage: guest_workload dmabufs | events CGROUP\n";
    return 2;
}
