// SPDX-License-Identifier: Apache-2.0
//
// The whole road from the kernel's ring buffers to a client that knows only the wire format, with
// numbered records: none is lost unless it is counted, none is invented, none comes out of order.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "records/contract.h"
#include "tests/support/kernel.h"
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

bool HasPollThread() {
    std::error_code error;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task", error)) {
        std::string name;
        std::ifstream(task.path() / "comm") >> name;
        if (name == "BpfServicePoll") {
            return true;
        }
    }
    return false;
}

class StreamTest : public ServiceTest {
  protected:
    // The next record that a test has put into a ring: those are of process 0. On a kernel with
    // kprobes real ones come between them.
    static std::optional<RawEventHeader> nextNumbered(WireClient& client) {
        while (const auto package = client.next()) {
            const auto record = As<RawDmabufAllocEvent>(package->body);
            if (record.pid == 0) {
                return record.header;
            }
        }
        return std::nullopt;
    }

    // Counts records by type until each of the streams has ended.
    static std::map<uint32_t, uint64_t> receiveAll(WireClient& client, int streams) {
        std::map<uint32_t, uint64_t> received;
        std::map<uint32_t, int64_t> last;
        while (streams > 0) {
            const auto header = nextNumbered(client);
            if (!header || header->time <= last[header->type]) {
                ADD_FAILURE() << (header ? "out of order" : "the stream ended early");
                break;
            }
            last[header->type] = header->time;
            received[header->type] += header->time != LAST_NUMBER;
            streams -= header->time == LAST_NUMBER;
        }
        return received;
    }

    static void endStream(RecordInjector& injector, uint32_t type, uint64_t* refused) {
        const auto last = Numbered(LAST_NUMBER, type);
        while (injector.inject(&last, sizeof(last)).sent == 0) {
            ++*refused;
            std::this_thread::sleep_for(milliseconds(1));
        }
    }
};

TEST_F(StreamTest, ProducedIsReceivedAndLostOnBothRings) {
    const uint64_t records = Scaled(Scaled(10000000));  // of each ring
    ASSERT_NO_FATAL_FAILURE(startService(64 * 1024, "6.1"));
    WireClient client;
    ASSERT_NO_FATAL_FAILURE(subscribe(&client, {RAW_EVENT_FD_UPDATE, RAW_EVENT_DMABUF_SIZE}));
    struct Stream {
        RingIndex ring;
        uint32_t type;
        RecordInjector::Result result;
        std::thread producer;
    };
    Stream streams[] = {{RING_CORE, RAW_EVENT_FD_UPDATE, {}, {}},
                        {RING_GPL, RAW_EVENT_DMABUF_SIZE, {}, {}}};
    for (Stream& stream : streams) {
        stream.producer = std::thread([&stream, records] {
            RecordInjector injector(stream.ring);
            // First as fast as it goes, so that the ring is full again and again; then in step with
            // the reader.
            auto& [sent, refused] = stream.result;
            while (sent + refused < records || refused == 0) {
                const auto record = Numbered(static_cast<int64_t>(sent + refused + 1), stream.type);
                const auto part = injector.inject(&record, sizeof(record), 1000);
                sent += part.sent;
                refused += part.refused;
                if (part.refused > 0 && sent + refused > records / 10) {
                    std::this_thread::sleep_for(milliseconds(1));
                }
            }
            endStream(injector, stream.type, &refused);
        });
    }
    auto received = receiveAll(client, 2);
    for (auto& [ring, type, result, producer] : streams) {
        producer.join();
        EXPECT_EQ(received[type], result.sent);
        // Other tasks of the machine may have met the full ring too.
        EXPECT_GE(LostRecords(ring), result.refused);
    }
}

// Then nobody reads, and real records find the ring full.
TEST_F(StreamTest, SixPollErrorsInARowEndTheMonitorFiveDoNot) {
    constexpr uint32_t RING_BYTES = 16 * 1024;
    ASSERT_NO_FATAL_FAILURE(startService(RING_BYTES));
    WireClient client;
    ASSERT_NO_FATAL_FAILURE(subscribe(&client, {RAW_EVENT_FD_UPDATE}));
    RecordInjector injector(RING_CORE);
    const auto good = Numbered(1);
    const auto bad = Numbered(1, 99);
    // Each bad record ends its poll; a good poll in between starts the count anew. Other tasks'
    // records may do that at any time, so their programs are silenced.
    SetRingFlags(RING_CORE, 0);
    injector.inject(&bad, sizeof(bad), 5);
    injector.inject(&good, sizeof(good));
    ASSERT_TRUE(nextNumbered(client).has_value());
    // Not into the poll that still has the good record in hand.
    std::this_thread::sleep_for(milliseconds(200));
    injector.inject(&bad, sizeof(bad), 6);
    EXPECT_TRUE(WaitUntil([] { return !HasPollThread(); }));
    EXPECT_EQ(client.subscribe(RAW_EVENT_TASK_EXIT), 0) << "clients are still served";

    const uint64_t lostBefore = LostRecords(RING_CORE);
    SetRingFlags(RING_CORE, FLAG_CORE_ENABLED);
    EXPECT_TRUE(WaitUntil([] {
        const pid_t child = fork();
        if (child == 0) {
            _exit(0);
        }
        waitpid(child, nullptr, 0);
        return (ReadRingStatus(RING_CORE, RING_STATUS_FLAGS) & FLAG_RINGBUF_FULL) != 0;
    }));
    SetRingFlags(RING_CORE, 0);
    EXPECT_GT(LostRecords(RING_CORE), lostBefore);
    EXPECT_EQ(ReadRingStatus(RING_CORE, RING_SIZE), RING_BYTES);
    EXPECT_LE(ReadRingStatus(RING_CORE, RING_AVAIL_DATA), RING_BYTES);
    EXPECT_GT(ReadRingStatus(RING_CORE, RING_AVAIL_DATA), RING_BYTES - 256);
}

TEST_F(StreamTest, UglyClientsCostNobodyElseARecord) {
    ASSERT_NO_FATAL_FAILURE(startService());
    WireClient good;
    ASSERT_NO_FATAL_FAILURE(subscribe(&good, {RAW_EVENT_FD_UPDATE}));
    std::atomic<bool> done{false};
    RecordInjector::Result produced;
    std::thread producer([&] {
        RecordInjector injector(RING_CORE);
        while (!done) {
            const auto record = Numbered(static_cast<int64_t>(produced.sent) + 1);
            produced.sent += injector.inject(&record, sizeof(record), 20).sent;
            std::this_thread::sleep_for(milliseconds(1));
        }
        endStream(injector, RAW_EVENT_FD_UPDATE, &produced.refused);
    });
    std::thread crowd([&] {
        std::vector<WireClient> silent;  // subscribe and never read
        for (int i = 0; i < 200; ++i) {
            WireClient ugly;
            EXPECT_TRUE(ugly.connectTo(SERVICE_SOCKET_NAME));
            switch (i % 5) {
                case 0:  // half a frame, then gone
                    ugly.sendBytes(WireClient::subscription(1, RAW_EVENT_FD_UPDATE).substr(0, 21));
                    break;
                case 1:  // a frame of that length
                    ugly.sendBytes(WireClient::word(0xffffffff) + std::string(300, '\x01'));
                    break;
                case 2:  // gone while it is written to
                    ugly.subscribe(RAW_EVENT_FD_UPDATE);
                    ugly.next(milliseconds(5));
                    break;
                case 3:
                    ugly.subscribe(RAW_EVENT_FD_UPDATE);
                    silent.push_back(std::move(ugly));
                    break;
                case 4:  // 40 KiB without a frame
                    ugly.sendBytes(std::string(40960, '\x7f'));
            }
        }
        done = true;
    });
    const uint64_t received = receiveAll(good, 1)[RAW_EVENT_FD_UPDATE];
    crowd.join();
    producer.join();
    EXPECT_EQ(received, produced.sent);
    EXPECT_EQ(good.subscribe(RAW_EVENT_CGROUP_ATTACH), 0) << "and requests are answered";
}

TEST_F(StreamTest, StopEndsAStreamThatNeverRunsEmpty) {
    ASSERT_NO_FATAL_FAILURE(startService());
    std::atomic<bool> done{false};
    std::thread producer([&] {
        RecordInjector injector(RING_CORE);
        const auto record = Numbered(1);
        while (!done) {
            injector.inject(&record, sizeof(record), 1000);
        }
    });
    WireClient client;
    ASSERT_NO_FATAL_FAILURE(subscribe(&client, {RAW_EVENT_FD_UPDATE}));
    EXPECT_TRUE(nextNumbered(client).has_value());
    std::atomic<bool> stopped{false};
    std::thread stopper([&] {
        stopService();
        stopped = true;
    });
    EXPECT_TRUE(WaitUntil([&] { return stopped.load(); }));
    done = true;
    stopper.join();
    producer.join();
    EXPECT_FALSE(client.tryConnect(SERVICE_SOCKET_NAME));
}

TEST_F(StreamTest, RecordsOfAFormerServiceAreLostAndCounted) {
    ASSERT_NO_FATAL_FAILURE(load());
    // The other class tells startService() when the new one is through with the old records.
    SetRingFlags(RING_CORE, FLAG_CORE_ENABLED);
    RecordInjector injector(RING_CORE);
    const auto stale = Numbered(-1000000);
    const auto [sent, refused] = injector.inject(&stale, sizeof(stale), 50000);
    ASSERT_GT(sent, 0U);
    // Comes as early as it can, while the service begins.
    std::atomic<bool> subscribed{false};
    int64_t told = 0;
    std::thread early([&] {
        WireClient client;
        subscribe(&client, {RAW_EVENT_FD_UPDATE});
        subscribed = true;
        const auto header = nextNumbered(client);
        told = header ? header->time : 0;
    });
    startService();
    WaitUntil([&] { return subscribed.load(); });
    const auto fresh = Numbered(77777777);
    injector.inject(&fresh, sizeof(fresh));
    early.join();
    EXPECT_EQ(told, 77777777);
    EXPECT_GE(LostRecords(RING_CORE), sent + refused);
}

}  // namespace
}  // namespace Tesu::Bpf
