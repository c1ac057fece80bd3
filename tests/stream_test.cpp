// SPDX-License-Identifier: Apache-2.0
//
// The whole road from the kernel's ring buffers to a client that knows only the wire format, with
// numbered records: none is lost unless it is counted, none is invented, none comes out of order.
// And the road of a service that comes after another: what the programs' maps hold of the earlier
// one is forgotten, of tasks that went through an exec, or whose ids are in use again, while no
// service ran.
#include <android-base/properties.h>
#include <android-base/strings.h>
#include <bcc/libbpf.h>
#include <bpf/bpf.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdint>
#include <future>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "diag/tesu_bpf_state.h"
#include "records/contract.h"
#include "records/notification.h"
#include "service/ring_pace.h"
#include "task/tesu_bpf_task_manager.h"
#include "tests/support/kernel.h"
#include "tests/support/records.h"
#include "tests/support/temp_dir.h"
#include "tests/support/wait_until.h"

namespace Tesu::Bpf {
namespace {

using std::chrono::milliseconds;

// Of the record that ends a stream.
constexpr int64_t LAST_NUMBER = INT64_MAX;

// A record that no handler takes, with a number for a time.
RawDmabufAllocEvent Numbered(int64_t number, uint32_t type = RAW_EVENT_FD_UPDATE) {
    RawDmabufAllocEvent record{};
    record.header.type = type;
    record.header.time = number;
    return record;
}

// What clients were told of losses, by ring.
using Losses = std::map<int32_t, uint64_t>;

// Whether it is a notification of one.
bool AddLoss(const std::string& event, Losses* losses) {
    const auto loss = As<RecordsLostNotification>(event);
    if (loss.header.type != NOTIFICATION_RECORDS_LOST) {
        return false;
    }
    EXPECT_GT(loss.lost, 0U);
    // Losses from before the subscription were told to nobody, or to others.
    const auto sum = losses->try_emplace(loss.ring, loss.total - loss.lost).first;
    EXPECT_EQ(sum->second += loss.lost, loss.total);
    return true;
}

// The next record that a test has put into a ring: those are of process 0. On a kernel with kprobes
// real ones come between them.
std::optional<RawEventHeader> NextNumbered(WireClient& client, Losses* losses = nullptr) {
    while (const auto package = client.next()) {
        const auto record = As<RawDmabufAllocEvent>(package->body);
        if (!(losses != nullptr && AddLoss(package->body, losses)) && record.pid == 0) {
            return record.header;
        }
    }
    return std::nullopt;
}

// Counts records by type until each of the streams has ended.
std::map<uint32_t, uint64_t> ReceiveAll(WireClient& client, int streams, Losses* losses) {
    std::map<uint32_t, uint64_t> received;
    std::map<uint32_t, int64_t> last;
    std::optional<RawEventHeader> header;
    while (streams > 0 && (header = NextNumbered(client, losses))) {
        EXPECT_GT(header->time, last[header->type]);
        last[header->type] = header->time;
        received[header->type] += header->time != LAST_NUMBER;
        streams -= header->time == LAST_NUMBER;
    }
    EXPECT_EQ(streams, 0) << "ended early";
    return received;
}

void EndStream(RecordInjector& injector, uint32_t type, uint64_t* refused) {
    const auto last = Numbered(LAST_NUMBER, type);
    for (; injector.inject(&last, sizeof(last)).sent == 0; ++*refused) {
        std::this_thread::sleep_for(milliseconds(1));
    }
}

// The sum of a type's counters.
uint64_t Counted(uint32_t type) {
    DumpState(DUMP_SIGNAL_STATE);
    std::istringstream text(ReadWholeFile(std::string(DUMP_DIR) + "/" + STATE_DUMP_FILE));
    std::string line;
    std::getline(text, line);
    uint64_t sum = 0;
    while (std::getline(text, line)) {
        sum += std::stoull(android::base::Split(line, ",")[1 + type]);
    }
    return sum;
}

// Else a record could be written without a wake-up just as the reader goes to sleep.
TEST(RingPaceTest, WaitsOnlyAfterARestWithWakeupsThatFoundNothing) {
    RingPace pace(1 << 20);
    EXPECT_FALSE(pace.after(0, true).rest.has_value());
    EXPECT_TRUE(pace.after(40, true).wantsWakeup) << "a record alone";
    EXPECT_FALSE(pace.after(0, true).rest.has_value());
    for (const bool isInterrupted : {false, true}) {
        EXPECT_FALSE(
            (isInterrupted ? pace.afterInterruption() : pace.after(4000, true)).wantsWakeup);
        for (const bool isEmpty : {true, false, false}) {
            const RingPace::Pause pause = pace.after(0, isEmpty);
            EXPECT_TRUE(pause.wantsWakeup);
            EXPECT_GT(pause.rest.value_or(milliseconds(0)), milliseconds(0));
        }
        EXPECT_FALSE(pace.after(0, true).rest.has_value());
    }
}

using StreamTest = KernelServiceTest;

TEST_F(StreamTest, ProducedIsReceivedAndLostOnBothRings) {
    constexpr uint32_t RING_BYTES = 4096;
    const uint64_t records = Scaled(Scaled(10000000));  // of each ring
    ASSERT_NO_FATAL_FAILURE(startService(RING_BYTES, "6.1"));
    ASSERT_NO_FATAL_FAILURE(
        subscribe({RAW_EVENT_FD_UPDATE, RAW_EVENT_DMABUF_SIZE, NOTIFICATION_RECORDS_LOST}));
    // First as fast as it goes, so that the ring is full again and again; then in step with the
    // reader.
    const auto produce = [records](RingIndex ring, uint32_t type) {
        RecordInjector injector(ring);
        RecordInjector::Result result;
        for (uint64_t done = 0; done < records || result.refused == 0;
             done = result.sent + result.refused) {
            const auto record = Numbered(static_cast<int64_t>(done + 1), type);
            const auto part = injector.inject(&record, sizeof(record), 1000);
            result.sent += part.sent;
            result.refused += part.refused;
            if (part.refused > 0 && done > records / 10) {
                std::this_thread::sleep_for(milliseconds(1));
            }
        }
        EndStream(injector, type, &result.refused);
        return result;
    };
    auto core = std::async(std::launch::async, produce, RING_CORE, RAW_EVENT_FD_UPDATE);
    auto gpl = std::async(std::launch::async, produce, RING_GPL, RAW_EVENT_DMABUF_SIZE);
    Losses losses;
    auto received = ReceiveAll(client, 2, &losses);
    for (const auto& [ring, type, result] : {std::tuple(RING_CORE, RAW_EVENT_FD_UPDATE, core.get()),
                                             {RING_GPL, RAW_EVENT_DMABUF_SIZE, gpl.get()}}) {
        EXPECT_EQ(received[type], result.sent);
        // Other tasks of the machine may have met the full ring too.
        EXPECT_GE(LostRecords(ring), result.refused);
        SetRingFlags(ring, 0);
        while (!losses.contains(ring) || losses[ring] < LostRecords(ring)) {
            const auto package = client.next();
            ASSERT_TRUE(package.has_value()) << "losses are not told";
            AddLoss(package->body, &losses);
        }
        const RingStatus statistics = service->ringStatus(ring);
        EXPECT_EQ(losses[ring], LostRecords(ring));
        EXPECT_EQ(statistics.lost, LostRecords(ring));
        EXPECT_GE(statistics.taken, result.sent);
        EXPECT_GT(statistics.fullest, RING_BYTES / 2);
        EXPECT_LE(statistics.fullest, RING_BYTES);
    }
    // They are given a reading's records at its end. Of this type the machine makes none itself.
    EXPECT_TRUE(WaitUntil(
        [&] { return Counted(RAW_EVENT_DMABUF_SIZE) == received[RAW_EVENT_DMABUF_SIZE] + 1; }));
}

// Then nobody reads, and real records find the ring full.
TEST_F(StreamTest, SixPollErrorsInARowEndTheMonitorFiveDoNot) {
    constexpr uint32_t RING_BYTES = 128 * 1024;
    ASSERT_NO_FATAL_FAILURE(startService(RING_BYTES));
    ASSERT_NO_FATAL_FAILURE(subscribe({RAW_EVENT_FD_UPDATE}));
    RecordInjector injector(RING_CORE);
    const auto good = Numbered(1);
    const auto bad = Numbered(1, 99);
    // Each bad record ends its poll; a good poll in between starts the count anew. Other tasks'
    // records may do that at any time, so their programs are silenced.
    SetRingFlags(RING_CORE, 0);
    const auto insert = [&](const auto& record, uint64_t count) {
        while (count > 0) {  // into a ring that others may have filled just before
            count -= injector.inject(&record, sizeof(record)).sent;
        }
    };
    // More than a client has room for that does not read yet, and nothing after it.
    const uint64_t sent = injector.inject(&good, sizeof(good), 2500).sent;
    std::this_thread::sleep_for(milliseconds(100));
    for (uint64_t i = 0; i < sent; ++i) {
        ASSERT_TRUE(NextNumbered(client).has_value());
    }
    insert(bad, 5);
    insert(good, 1);
    ASSERT_TRUE(NextNumbered(client).has_value());
    // Not into the poll that still has the good record in hand.
    std::this_thread::sleep_for(milliseconds(200));
    insert(bad, 6);
    EXPECT_TRUE(WaitUntil([] { return CountThreads("BpfServicePoll") == 0; }));
    EXPECT_EQ(client.subscribe(RAW_EVENT_TASK_EXIT), 0) << "clients are still served";

    const uint64_t lostBefore = LostRecords(RING_CORE);
    SetRingFlags(RING_CORE, FLAG_CORE_ENABLED);
    EXPECT_TRUE(WaitUntil([] {
        std::thread([] {}).join();
        return (ReadRingStatus(RING_CORE, RING_STATUS_FLAGS) & FLAG_RINGBUF_FULL) != 0;
    }));
    SetRingFlags(RING_CORE, 0);
    EXPECT_GT(LostRecords(RING_CORE), lostBefore);
    EXPECT_EQ(ReadRingStatus(RING_CORE, RING_SIZE), RING_BYTES);
    EXPECT_NEAR(ReadRingStatus(RING_CORE, RING_AVAIL_DATA), RING_BYTES - 128, 128);
}

TEST_F(StreamTest, AStreamThatNeverRunsEmptyTellsItsLossesAndIsStopped) {
    ASSERT_NO_FATAL_FAILURE(startService(1 << 20));
    // Handling takes longer than making: nearly always somebody else has the table.
    const std::jthread other([](const std::stop_token& stop) {
        while (!stop.stop_requested()) {
            {
                MutexLock lock(TesuTaskManager::tesuTaskManagerLock);
                std::this_thread::sleep_for(milliseconds(2));
            }
            std::this_thread::sleep_for(std::chrono::microseconds(50));
        }
    });
    const std::jthread producer([](const std::stop_token& stop) {
        RecordInjector injector(RING_CORE);
        RawTaskCreateEvent record{};
        record.header.type = RAW_EVENT_TASK_CREATE;
        record.pid = getpid();
        record.taskType = RAW_TASK_PROCESS;
        while (!stop.stop_requested()) {
            // Nothing else runs on that CPU meanwhile, which is slow where it is emulated.
            injector.inject(&record, sizeof(record), 40000);
        }
    });
    // While it goes on, what finds the ring full is told.
    ASSERT_NO_FATAL_FAILURE(subscribe({NOTIFICATION_RECORDS_LOST}));
    EXPECT_TRUE(client.next().has_value());
    service->stop();
    waitResult.get();  // or the time limit of the tests ends it
}

TEST_F(StreamTest, RecordsOfAFormerServiceAreLostAndCounted) {
    ASSERT_NO_FATAL_FAILURE(load());
    // The other class shows startService() when the new one is through with the old records.
    SetRingFlags(RING_CORE, FLAG_CORE_ENABLED);
    RecordInjector injector(RING_CORE);
    const auto stale = Numbered(-1000000);
    const auto [sent, refused] = injector.inject(&stale, sizeof(stale), 50000);
    ASSERT_GT(sent, 0U);
    // Comes as early as it can, while the service begins.
    auto early = std::async(std::launch::async, [&] { subscribe({RAW_EVENT_FD_UPDATE}); });
    startService();
    early.wait();
    const auto fresh = Numbered(77777777);
    injector.inject(&fresh, sizeof(fresh));
    const auto first = NextNumbered(client);
    EXPECT_EQ(first ? first->time : 0, fresh.header.time);
    EXPECT_GE(LostRecords(RING_CORE), sent + refused);
}

// A service that was killed while it came to the ring by itself, and records that come while the
// next one begins.
TEST_F(StreamTest, WhatWokeNobodyIsReadBeforeTheFirstWait) {
    ASSERT_NO_FATAL_FAILURE(load());
    const uint32_t key = 0;
    const uint32_t isPolled = 1;
    ASSERT_EQ(bpf_map_update_elem(OpenPin(CORE_POLLED_MAP).get(), &key, &isPolled, BPF_ANY), 0);
    std::jthread storm([](const std::stop_token& stop) {
        while (!stop.stop_requested()) {
            std::thread([] {}).join();
        }
    });
    startService();
    storm = {};
    subscribe({RAW_EVENT_FD_UPDATE});
    const auto fresh = Numbered(77777777);
    RecordInjector(RING_CORE).inject(&fresh, sizeof(fresh));
    EXPECT_TRUE(NextNumbered(client).has_value());
}

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
