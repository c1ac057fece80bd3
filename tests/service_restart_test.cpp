// SPDX-License-Identifier: Apache-2.0
//
// What the programs' maps hold of an earlier service is forgotten: of tasks that went through an
// exec, or whose ids are in use again, while no service ran.
#include <bcc/libbpf.h>
#include <bpf/bpf.h>
#include <gtest/gtest.h>
#include <linux/sched.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <set>

#include "records/contract.h"
#include "tests/support/kernel.h"

namespace Tesu::Bpf {
namespace {

// Shell commands: to wait to be continued, and to take some megabytes, since kernels report small
// changes of memory late.
#define STOP "kill -STOP $$; "
#define GROW "b=0123456789abcdef; while [ ${#b} -lt 4000000 ]; do b=$b$b; done; "

void AwaitStop(pid_t pid) {
    int status = 0;
    ASSERT_GT(pid, 0);
    ASSERT_EQ(waitpid(pid, &status, WUNTRACED), pid);
    ASSERT_TRUE(WIFSTOPPED(status));
}

// Starts a shell, under that process id where one is given, and waits until it stops.
pid_t StartShell(const char* script, pid_t pid = 0) {
    clone_args args = {};
    args.exit_signal = SIGCHLD;
    args.set_tid = pid != 0 ? reinterpret_cast<uintptr_t>(&pid) : 0;
    args.set_tid_size = pid != 0 ? 1 : 0;
    const auto child = static_cast<pid_t>(syscall(SYS_clone3, &args, sizeof(args)));
    if (child == 0) {
        execl("/bin/sh", "sh", "-c", script, nullptr);
        _exit(1);
    }
    AwaitStop(child);
    return child;
}

void End(pid_t pid) {
    kill(pid, SIGKILL);
    ASSERT_EQ(waitpid(pid, nullptr, 0), pid);
}

android::base::unique_fd Attach(const char* program, const char* category, const char* event) {
    const auto fd = OpenPin(program);
    return android::base::unique_fd(bpf_attach_tracepoint(fd.get(), category, event));
}

using ServiceRestartTest = ServiceTest;

TEST_F(ServiceRestartTest, KnowsNothingOfWhatAnEarlierServiceSaw) {
    ASSERT_NO_FATAL_FAILURE(load());
    SetRingFlags(RING_CORE, FLAG_CORE_ENABLED);
    auto attached =
        Attach("prog_" TESU_CORE_OBJECT "_tracepoint_kmem_rss_stat", "kmem", "rss_stat");
    const pid_t execs = StartShell(GROW STOP "exec sh -c '" STOP GROW STOP "'");
    const pid_t reused = StartShell(GROW STOP);
    attached = Attach("prog_" TESU_CORE_OBJECT "_tracepoint_sched_sched_process_fork", "sched",
                      "sched_process_fork");
    const pid_t unborn = StartShell(STOP);  // has not come to its create record
    attached.reset();

    uint64_t value[4] = {};
    const auto exits = OpenPin(TESU_CORE_MAP("process_exit_written"));
    const auto totals = OpenPin(DMABUF_SIZE_MAP);
    for (const auto* map : {&exits, &totals}) {
        ASSERT_EQ(bpf_map_update_elem(map->get(), &reused, value, BPF_ANY), 0);
    }
    const auto pending = OpenPin(TESU_CORE_MAP("task_create_pending"));
    ASSERT_EQ(bpf_map_lookup_elem(pending.get(), &unborn, value), 0);
    const auto mms = OpenPin(TESU_CORE_MAP("process_mm"));
    ASSERT_EQ(bpf_map_lookup_elem(mms.get(), &reused, value), 0);

    kill(execs, SIGCONT);
    AwaitStop(execs);
    for (const pid_t pid : {reused, unborn}) {
        End(pid);
        ASSERT_EQ(StartShell(STOP GROW STOP, pid), pid);
    }
    ASSERT_NO_FATAL_FAILURE(startService({}, "6.1"));
    EXPECT_NE(bpf_map_lookup_elem(totals.get(), &reused, value), 0);
    WireClient client;
    ASSERT_NO_FATAL_FAILURE(
        subscribe(&client, {RAW_EVENT_TASK_CREATE, RAW_EVENT_TASK_EXIT, RAW_EVENT_RSS_STAT}));
    std::set<pid_t> living = {execs, reused, unborn};
    for (const pid_t pid : living) {
        kill(pid, SIGCONT);
        AwaitStop(pid);
        End(pid);
    }
    while (!living.empty()) {
        const auto package = client.next();
        ASSERT_TRUE(package.has_value()) << living.size() << " exits are missing";
        const auto rss = As<RawRssStatEvent>(package->body);
        const auto create = As<RawTaskCreateEvent>(package->body);
        if (rss.header.type == RAW_EVENT_TASK_CREATE) {
            EXPECT_FALSE(living.contains(create.pid));
        } else if (rss.header.type == RAW_EVENT_TASK_EXIT) {
            living.erase(rss.pid);
        } else if (living.contains(rss.pid)) {
            EXPECT_GT(rss.size, 0) << "member " << rss.member;
        }
    }
}

}  // namespace
}  // namespace Tesu::Bpf
