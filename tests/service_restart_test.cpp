// SPDX-License-Identifier: Apache-2.0
//
// What the programs' maps hold of an earlier service is forgotten: of tasks that went through an
// exec, or whose ids are in use again, while no service ran.
#include <android-base/properties.h>
#include <bcc/libbpf.h>
#include <bpf/bpf.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <vector>

#include "records/contract.h"
#include "tests/support/kernel.h"
#include "tests/support/records.h"
#include "tests/support/wait_until.h"

namespace Tesu::Bpf {
namespace {

using ServiceRestartTest = KernelServiceTest;

TEST_F(ServiceRestartTest, KnowsNothingOfWhatAnEarlierServiceSaw) {
    ASSERT_NO_FATAL_FAILURE(load());
    SetRingFlags(RING_CORE, FLAG_CORE_ENABLED);
    const auto onFork = OpenPin("prog_" TESU_CORE_OBJECT "_tracepoint_sched_sched_process_fork");
    android::base::unique_fd attached(
        bpf_attach_tracepoint(onFork.get(), "sched", "sched_process_fork"));
    // Not fork(), after which a sanitizer may make a thread at once.
    const auto pid = static_cast<pid_t>(syscall(SYS_clone, SIGCHLD, 0, 0, 0, 0));
    if (pid == 0) {
        raise(SIGSTOP);
        // Kernels report small changes of memory late.
        const std::vector<char> memory(16 << 20, 1);
        _exit(memory.back() - 1);
    }
    ASSERT_EQ(waitpid(pid, nullptr, WUNTRACED), pid);
    attached.reset();

    // Its create record is not made yet; the other entries are of a former process with its id.
    uint64_t value[4] = {1};
    const auto pending = OpenPin(TESU_CORE_MAP("task_create_pending"));
    ASSERT_EQ(bpf_map_lookup_elem(pending.get(), &pid, value), 0);
    const auto mms = OpenPin(TESU_CORE_MAP("process_mm"));
    const auto exits = OpenPin(TESU_CORE_MAP("process_exit_written"));
    const auto totals = OpenPin(DMABUF_SIZE_MAP);
    for (const auto* map : {&mms, &exits, &totals}) {
        ASSERT_EQ(bpf_map_update_elem(map->get(), &pid, value, BPF_ANY), 0);
    }
    ASSERT_NO_FATAL_FAILURE(startService({}, "6.1"));
    EXPECT_NE(bpf_map_lookup_elem(totals.get(), &pid, value), 0);
    ASSERT_NO_FATAL_FAILURE(
        subscribe({RAW_EVENT_TASK_CREATE, RAW_EVENT_TASK_EXIT, RAW_EVENT_RSS_STAT}));
    kill(pid, SIGCONT);
    ASSERT_EQ(waitpid(pid, nullptr, 0), pid);
    for (bool hasEnded = false; !hasEnded;) {
        const auto package = client.next();
        ASSERT_TRUE(package.has_value()) << "the exit is missing";
        const auto rss = As<RawRssStatEvent>(package->body);
        const auto create = As<RawTaskCreateEvent>(package->body);
        if (rss.header.type == RAW_EVENT_TASK_CREATE) {
            EXPECT_NE(create.pid, pid);
        } else if (rss.pid == pid) {
            hasEnded = rss.header.type == RAW_EVENT_TASK_EXIT;
            EXPECT_TRUE(hasEnded || rss.size > 0) << "member " << rss.member;
        }
    }
}

// A restart brings no pins, so their want is no reason for one.
TEST_F(ServiceRestartTest, IsAskedForWhenPinsComeToAServiceThatFoundNone) {
    android::base::SetProperty(WATCH_PINS_PROPERTY, "1");
    start("1");
    ASSERT_TRUE(WaitUntil(
        [this] { return service->ringStatus(RING_CORE).monitor == RING_MONITOR_FAILED; }));
    ASSERT_NO_FATAL_FAILURE(load());
    pollfd restart = {.fd = service->restartFd(), .events = POLLIN, .revents = 0};
    EXPECT_TRUE(WaitUntil([&] { return poll(&restart, 1, 0) == 1; }));
    EXPECT_EQ(service->restartReason(), "other eBPF programs were pinned than those in use");
}

}  // namespace
}  // namespace Tesu::Bpf
