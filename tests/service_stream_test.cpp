// SPDX-License-Identifier: Apache-2.0
//
// The whole road, from the kernel's ring buffer to a client that knows only the wire format.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cinttypes>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "records/raw_event.h"
#include "records/read_prefix.h"
#include "service/lost_records.h"
#include "tests/support/running_service.h"
#include "tests/support/wait_until.h"
#include "tests/support/wire_client.h"

namespace Tesu::Bpf {
namespace {

using std::chrono::milliseconds;

template <class T>
T As(const WireClient::Package& package) {
    EXPECT_EQ(package.type, 3U);
    return ReadPrefix<T>(package.body.data(), static_cast<int64_t>(package.body.size()));
}

// A record that no handler takes, with a sequence number for a time.
RawFdUpdateEvent NumberedRecord(int64_t number = 0) {
    RawFdUpdateEvent record{};
    record.header.type = RAW_EVENT_FD_UPDATE;
    record.header.time = number;
    return record;
}

bool HasThread(const std::string& wanted) {
    std::error_code error;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task", error)) {
        std::ifstream comm(task.path() / "comm");
        std::string name;
        std::getline(comm, name);
        if (name == wanted) {
            return true;
        }
    }
    return false;
}

// Number of the record that ends a stream.
constexpr int64_t LAST_NUMBER = INT64_MAX;

class ServiceStreamTest : public RunningServiceTest {
  protected:
    // The next record that a test has put into a ring: those are of process 0. On a kernel with
    // kprobes real ones come between them.
    static std::optional<WireClient::Package> nextInjected(WireClient& client) {
        while (auto package = client.next()) {
            if (As<RawFdUpdateEvent>(*package).pid == 0) {
                return package;
            }
        }
        return std::nullopt;
    }

    // Counts numbered records until the last; false when they are out of order or end early.
    static bool receiveNumbers(WireClient& client, uint64_t* received) {
        int64_t former = 0;
        while (const auto package = nextInjected(client)) {
            const int64_t number = As<RawFdUpdateEvent>(*package).header.time;
            if (number == LAST_NUMBER) {
                return true;
            }
            if (number <= former) {
                ADD_FAILURE() << number << " after " << former;
                return false;
            }
            former = number;
            ++*received;
        }
        ADD_FAILURE() << "the stream ended after " << *received;
        return false;
    }

    void subscribe(WireClient& client, std::initializer_list<int> types) {
        ASSERT_TRUE(client.connectTo(SOCKET));
        for (const int type : types) {
            ASSERT_EQ(client.subscribe(type), 0);
        }
    }
};

TEST_F(ServiceStreamTest, EveryForkAndExitReachesAClientOnce) {
    ASSERT_NO_FATAL_FAILURE(startService());
    WireClient client;
    ASSERT_NO_FATAL_FAILURE(subscribe(client, {RAW_EVENT_TASK_CREATE, RAW_EVENT_TASK_EXIT}));
    constexpr int PROCESSES = TESUBPF_STREAM_PROCESSES;
    std::map<int, std::string> seen;  // child -> what was told of it, in order
    for (int i = 0; i < PROCESSES; ++i) {
        const pid_t child = fork();
        if (child == 0) {
            _exit(0);
        }
        ASSERT_GT(child, 0);
        seen[child];
        ASSERT_EQ(waitpid(child, nullptr, 0), child);
    }
    int ended = 0;
    while (ended < PROCESSES) {
        const auto package = client.next();
        ASSERT_TRUE(package.has_value()) << ended << " of " << PROCESSES << " ended";
        const auto header = As<RawEventHeader>(*package);
        if (header.type == RAW_EVENT_TASK_CREATE) {
            const auto create = As<RawTaskCreateEvent>(*package);
            if (const auto child = seen.find(create.pid); child != seen.end()) {
                child->second += "created ";
                EXPECT_EQ(create.ppid, getpid());
                EXPECT_EQ(create.uid, static_cast<int>(getuid()));
                EXPECT_EQ(create.taskType, RAW_TASK_PROCESS);
            }
        } else {
            const auto exit = As<RawTaskExitEvent>(*package);
            if (const auto child = seen.find(exit.pid); child != seen.end()) {
                child->second += "ended ";
                EXPECT_EQ(exit.taskType, RAW_TASK_PROCESS);
                ++ended;
            }
        }
    }
    // Nothing more comes of them.
    while (const auto package = client.next(milliseconds(200))) {
        EXPECT_EQ(seen.count(ReadPrefix<int32_t>(package->body.data() + 16, 4)), 0U);
    }
    for (const auto& [child, told] : seen) {
        EXPECT_EQ(told, "created ended ") << child;
    }
    const auto status = OpenPinnedMap(PinnedRing::CORE, "ringbuf_status");
    EXPECT_EQ(ReadLostRecords(status.get()), 0U);
}

TEST_F(ServiceStreamTest, ProducedIsReceivedAndLostAndInOrder) {
    ASSERT_NO_FATAL_FAILURE(startService(256 * 1024));
    WireClient client;
    ASSERT_NO_FATAL_FAILURE(subscribe(client, {RAW_EVENT_FD_UPDATE}));
    const auto injector = openInjector(PinnedRing::CORE);
    ASSERT_NE(injector, nullptr);
    const RawFdUpdateEvent record = NumberedRecord();
    constexpr uint64_t RECORDS = TESUBPF_STREAM_RECORDS;
    uint64_t sent = 0;
    uint64_t refused = 0;
    std::thread producer([&] {
        // First as fast as it goes, so that the ring is full again and again; then in step with the
        // reader, for the length of the stream.
        while (sent + refused < RECORDS) {
            const auto result =
                injector->injectSequence(&record, sizeof(record), sent + refused + 1, 1000);
            sent += result.sent;
            refused += result.refused;
            if (result.refused > 0 && sent + refused > RECORDS / 10) {
                std::this_thread::sleep_for(milliseconds(1));
            }
        }
        const RawFdUpdateEvent last = NumberedRecord(LAST_NUMBER);
        while (injector->inject(&last, sizeof(last)) == 0) {
            ++refused;
        }
    });
    uint64_t received = 0;
    EXPECT_TRUE(receiveNumbers(client, &received));
    producer.join();
    EXPECT_EQ(received, sent);
    EXPECT_GT(refused, 0U) << "the ring was never full: nothing was lost, nothing tested";
    const auto status = OpenPinnedMap(PinnedRing::CORE, "ringbuf_status");
    // Other tasks of the machine may have met the full ring too.
    EXPECT_GE(ReadLostRecords(status.get()), refused);
    EXPECT_NE(ReadRingStatus(PinnedRing::CORE, RING_STATUS_FLAGS) & FLAG_RINGBUF_FULL, 0U);
    EXPECT_EQ(ReadRingStatus(PinnedRing::CORE, RING_SIZE), 256U * 1024);
    std::printf("%" PRIu64 " records: %" PRIu64 " received, %" PRIu64 " found the ring full\n",
                sent + refused, received, refused);
}

// Prints how long records took from the ring to the client, one every 10 ms. Only their arrival is
// checked: how fast a machine is depends on what else it does. TESUBPF_LATENCY_SECONDS=60 measures
// for a minute.
TEST_F(ServiceStreamTest, SingleRecordsArriveWithoutOthersToPushThem) {
    ASSERT_NO_FATAL_FAILURE(startService());
    WireClient client;
    ASSERT_NO_FATAL_FAILURE(subscribe(client, {RAW_EVENT_FD_UPDATE}));
    const auto injector = openInjector(PinnedRing::CORE);
    ASSERT_NE(injector, nullptr);
    const char* seconds = std::getenv("TESUBPF_LATENCY_SECONDS");
    const int records = 100 * (seconds != nullptr ? std::atoi(seconds) : 2);
    const auto now = [] { return std::chrono::steady_clock::now().time_since_epoch(); };
    std::vector<std::chrono::nanoseconds> latencies;
    std::thread reader([&] {
        for (int i = 0; i < records; ++i) {
            const auto package = nextInjected(client);
            ASSERT_TRUE(package.has_value()) << i << " of " << records;
            const auto injected = As<RawFdUpdateEvent>(*package).header.time;
            latencies.push_back(now() - std::chrono::nanoseconds(injected));
        }
    });
    for (int i = 0; i < records; ++i) {
        const RawFdUpdateEvent record = NumberedRecord(now().count());
        EXPECT_EQ(injector->inject(&record, sizeof(record)), 1U);
        std::this_thread::sleep_for(milliseconds(10));
    }
    reader.join();
    std::sort(latencies.begin(), latencies.end());
    ASSERT_FALSE(latencies.empty());
    std::printf("%zu records: median %.3f ms, longest %.3f ms\n", latencies.size(),
                static_cast<double>(latencies[latencies.size() / 2].count()) / 1e6,
                static_cast<double>(latencies.back().count()) / 1e6);
}

TEST_F(ServiceStreamTest, UglyClientsCostNobodyElseARecord) {
    ASSERT_NO_FATAL_FAILURE(startService());
    WireClient good;
    ASSERT_NO_FATAL_FAILURE(subscribe(good, {RAW_EVENT_FD_UPDATE}));
    const auto injector = openInjector(PinnedRing::CORE);
    ASSERT_NE(injector, nullptr);
    constexpr int CLIENTS = 200;
    std::atomic<bool> done{false};
    uint64_t produced = 0;
    std::thread producer([&] {
        const RawFdUpdateEvent record = NumberedRecord();
        while (!done) {
            const auto result = injector->injectSequence(&record, sizeof(record), produced + 1, 20);
            EXPECT_EQ(result.refused, 0U);
            produced += result.sent;
            std::this_thread::sleep_for(milliseconds(1));
        }
        const RawFdUpdateEvent last = NumberedRecord(LAST_NUMBER);
        EXPECT_EQ(injector->inject(&last, sizeof(last)), 1U);
    });
    std::thread crowd([&] {
        std::vector<WireClient> silent;  // subscribe and never read
        for (int i = 0; i < CLIENTS; ++i) {
            WireClient ugly;
            ASSERT_TRUE(ugly.connectTo(SOCKET));
            switch (i % 5) {
                case 0:  // half a frame, then gone
                    ugly.sendBytes(WireClient::subscription(1, RAW_EVENT_FD_UPDATE).substr(0, 21));
                    break;
                case 1: {  // garbage of every kind of length
                    std::string garbage;
                    for (int k = 0; k < 300; ++k) {
                        garbage += static_cast<char>(i * 31 + k * k);
                    }
                    ugly.sendBytes(garbage + WireClient::word(0xffffffff));
                    break;
                }
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
                    break;
            }
        }
        done = true;
    });
    uint64_t received = 0;
    EXPECT_TRUE(receiveNumbers(good, &received));
    crowd.join();
    producer.join();
    EXPECT_EQ(received, produced);
    WireClient late;  // to the other one a real record may come first
    ASSERT_TRUE(late.connectTo(SOCKET));
    EXPECT_EQ(late.subscribe(RAW_EVENT_CGROUP_ATTACH), 0) << "and requests are answered";
}

TEST_F(ServiceStreamTest, RecordsOfAnySizePassUnchangedAndUnknownTypesDoNot) {
    ASSERT_NO_FATAL_FAILURE(startService());
    WireClient client;
    ASSERT_NO_FATAL_FAILURE(
        subscribe(client, {RAW_EVENT_DMABUF_SIZE, RAW_EVENT_CGROUP_ATTACH, 7, -1}));
    const auto injector = openInjector(PinnedRing::CORE);
    ASSERT_NE(injector, nullptr);
    const auto inject = [&](uint32_t type, uint32_t size) {
        std::string record(size, '\0');
        for (uint32_t i = 16; i < size; ++i) {
            record[i] = static_cast<char>(i * 7);
        }
        record.replace(0, 4, WireClient::word(type));
        EXPECT_EQ(injector->inject(record.data(), size), 1U);
        return record;
    };
    std::vector<std::string> expected;
    for (const uint32_t size : {16U, 17U, 31U, 32U, 120U, 4088U, IPC_MAX_PACKAGE_SIZE - 8}) {
        expected.push_back(inject(RAW_EVENT_DMABUF_SIZE, size));
    }
    inject(RAW_EVENT_DMABUF_SIZE, IPC_MAX_PACKAGE_SIZE - 7);  // fits no write buffer: refused
    inject(7, 32);
    inject(0xffffffff, 32);
    expected.push_back(inject(RAW_EVENT_CGROUP_ATTACH, 120));
    for (const std::string& record : expected) {
        const auto package = client.next();
        ASSERT_TRUE(package.has_value());
        EXPECT_EQ(package->body, record) << record.size();
    }
}

TEST_F(ServiceStreamTest, SixPollErrorsInARowEndTheMonitorFiveDoNot) {
    ASSERT_NO_FATAL_FAILURE(startService());
    WireClient client;
    ASSERT_NO_FATAL_FAILURE(subscribe(client, {RAW_EVENT_FD_UPDATE}));
    const auto injector = openInjector(PinnedRing::CORE);
    ASSERT_NE(injector, nullptr);
    const RawFdUpdateEvent good = NumberedRecord(1);
    RawFdUpdateEvent bad = good;
    bad.header.type = 99;
    // Each bad record ends its poll; a good poll in between starts the count anew. Other tasks'
    // records may do that at any time, so their programs are silenced.
    SetRingFlags(PinnedRing::CORE, 0);
    for (int i = 0; i < 5; ++i) {
        injector->inject(&bad, sizeof(bad));
    }
    injector->inject(&good, sizeof(good));
    ASSERT_TRUE(nextInjected(client).has_value());
    // Not into the poll that still has the good record in hand.
    std::this_thread::sleep_for(milliseconds(200));
    EXPECT_TRUE(HasThread("BpfServicePoll"));
    for (int i = 0; i < 6; ++i) {
        injector->inject(&bad, sizeof(bad));
    }
    EXPECT_TRUE(WaitUntil([] { return !HasThread("BpfServicePoll"); }));
    EXPECT_EQ(client.subscribe(RAW_EVENT_TASK_EXIT), 0) << "clients are still served";
}

TEST_F(ServiceStreamTest, BothRingsAreDrainedOnKernel61) {
    ASSERT_NO_FATAL_FAILURE(startService({}, "6.1"));
    WireClient client;
    ASSERT_NO_FATAL_FAILURE(subscribe(client, {RAW_EVENT_FD_UPDATE, RAW_EVENT_DMABUF_SIZE}));
    const auto core = openInjector(PinnedRing::CORE);
    ASSERT_NE(core, nullptr);
    const auto gpl = openInjector(PinnedRing::GPL);
    ASSERT_NE(gpl, nullptr);
    constexpr uint64_t EACH = 20000;
    const auto produce = [](RecordInjector& injector, uint32_t type) {
        RawDmabufAllocEvent record{};
        record.header.type = type;
        for (uint64_t sent = 0; sent < EACH; sent += 100) {
            ASSERT_EQ(injector.injectSequence(&record, sizeof(record), sent + 1, 100).sent, 100U);
            std::this_thread::sleep_for(milliseconds(1));
        }
    };
    std::thread first([&] { produce(*core, RAW_EVENT_FD_UPDATE); });
    std::thread second([&] { produce(*gpl, RAW_EVENT_DMABUF_SIZE); });
    std::map<uint32_t, int64_t> last;
    for (uint64_t received = 0; received < 2 * EACH; ++received) {
        const auto package = nextInjected(client);
        if (!package.has_value()) {
            ADD_FAILURE() << "the stream ended after " << received;
            break;
        }
        const auto header = As<RawEventHeader>(*package);
        if (header.time != ++last[header.type]) {
            ADD_FAILURE() << header.time << " of type " << header.type << ", not "
                          << last[header.type];
            break;
        }
    }
    first.join();
    second.join();
}

TEST_F(ServiceStreamTest, StopEndsAStreamThatNeverRunsEmpty) {
    ASSERT_NO_FATAL_FAILURE(startService());
    const auto injector = openInjector(PinnedRing::CORE);
    ASSERT_NE(injector, nullptr);
    std::atomic<bool> done{false};
    std::thread producer([&] {
        const RawFdUpdateEvent record = NumberedRecord();
        while (!done) {
            injector->injectSequence(&record, sizeof(record), 1, 1000);
        }
    });
    std::this_thread::sleep_for(milliseconds(50));
    stopService();  // returns, or the test runs into its time limit
    done = true;
    producer.join();
    WireClient late;
    EXPECT_FALSE(late.tryConnect(SOCKET));
}

TEST_F(ServiceStreamTest, RecordsOfAFormerServiceAreNotTold) {
    LoadOptions options = BuiltObjects();
    std::string messages;
    ASSERT_TRUE(LoadPins(options, &messages)) << messages;
    // The other class tells startService() when the new one is through with the old records.
    SetRingFlags(PinnedRing::CORE, FLAG_CORE_ENABLED);
    const auto injector = openInjector(PinnedRing::CORE);
    ASSERT_NE(injector, nullptr);
    const RawFdUpdateEvent stale = NumberedRecord(-1000000);
    ASSERT_GT(injector->injectSequence(&stale, sizeof(stale), 1, 50000).sent, 0U);
    // Comes as early as it can, while the service begins.
    std::atomic<bool> subscribed{false};
    int64_t told = 0;
    std::thread client([&] {
        WireClient early;
        EXPECT_TRUE(early.connectTo(SOCKET));
        EXPECT_EQ(early.subscribe(RAW_EVENT_FD_UPDATE), 0);
        subscribed = true;
        if (const auto package = nextInjected(early)) {
            told = As<RawFdUpdateEvent>(*package).header.time;
        }
    });
    ASSERT_NO_FATAL_FAILURE(startService());
    ASSERT_TRUE(WaitUntil([&] { return subscribed.load(); }));
    const RawFdUpdateEvent fresh = NumberedRecord(77777777);
    ASSERT_EQ(injector->inject(&fresh, sizeof(fresh)), 1U);
    client.join();
    EXPECT_EQ(told, 77777777);
}

}  // namespace
}  // namespace Tesu::Bpf
