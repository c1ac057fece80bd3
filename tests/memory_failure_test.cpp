// SPDX-License-Identifier: Apache-2.0
//
// Allocations of the service's threads that fail: none of the threads ends by it, which would end
// the process.
#include <android-base/properties.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/prctl.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <new>
#include <string_view>
#include <thread>

#include "records/contract.h"
#include "tests/support/kernel.h"
#include "tests/support/wait_until.h"

namespace {

std::atomic<bool> isFailing{false};

bool Fails() {
    static std::atomic<unsigned> count{0};
    char thread[16] = {};
    return isFailing && prctl(PR_GET_NAME, thread) == 0 &&
           std::string_view(thread).starts_with("BpfService") && ++count % 7 == 0;
}

}  // namespace

// Not inlined, or the compiler finds that they do not match.
[[gnu::noinline]] void* operator new(size_t size) {
    void* const memory = Fails() ? nullptr : std::malloc(size);
    return memory != nullptr ? memory : throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* memory) noexcept {
    std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, size_t /*size*/) noexcept {
    std::free(memory);
}

namespace Tesu::Bpf {
namespace {

using MemoryFailureTest = KernelServiceTest;

TEST_F(MemoryFailureTest, EndsNoThread) {
    android::base::SetProperty(WATCH_PINS_PROPERTY, "1");
    android::base::SetProperty(MEND_TABLE_PROPERTY, "1");
    ASSERT_NO_FATAL_FAILURE(startService());
    const auto isServed = [this] {
        subscribe({RAW_EVENT_TASK_CREATE});
        std::thread([] {}).join();
        return client.next().has_value();
    };
    ASSERT_TRUE(isServed());
    isFailing = true;
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(4);
    while (std::chrono::steady_clock::now() < end) {
        WireClient guest;
        guest.connectTo(SERVICE_SOCKET_NAME);
        guest.sendBytes(WireClient::subscription(1, RAW_EVENT_TASK_CREATE) +
                        WireClient::request(2, STATUS_COMMAND, ""));
        std::thread([] {}).join();
        raise(DUMP_SIGNAL_TASKS);
        guest.next(std::chrono::milliseconds(5));
    }
    isFailing = false;
    EXPECT_TRUE(isServed());
    ASSERT_NO_FATAL_FAILURE(load());
    pollfd restart = {.fd = service->restartFd(), .events = POLLIN, .revents = 0};
    EXPECT_TRUE(WaitUntil([&] { return poll(&restart, 1, 0) == 1; }));
}

}  // namespace
}  // namespace Tesu::Bpf
