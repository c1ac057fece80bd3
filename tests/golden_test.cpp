// SPDX-License-Identifier: Apache-2.0
//
// Records go the way of every record: what an operator and a client then get is byte for byte what
// it was on every other machine. Needs no kernel program.
#include "tests/support/golden.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <random>
#include <regex>
#include <string>
#include <vector>

#include "client/events/event_json.h"
#include "client/events/event_text.h"
#include "task/tesu_bpf_task_manager.h"
#include "tests/support/records.h"
#include "tests/support/served_test.h"
#include "util/monotonic_clock.h"
#include "util/time_util.h"

namespace Tesu::Bpf {
namespace {

constexpr int64_t REPORT_AGE = 3 * NANOSECONDS_PER_SECOND;
// Process ids from here on are above every kernel's limit: nothing of them is found in /proc.
constexpr int32_t FIRST_PID = 5000000;

const std::string DUMP = std::string(DUMP_DIR) + "/" + TASK_DUMP_FILE;

struct Records : std::vector<std::string> {
    template <class... Record>
    void add(const Record&... record) {
        (push_back(Bytes(record)), ...);
    }
    // Negative: threads that end.
    void addThreads(int count, int64_t time, int32_t pid) {
        const auto begun = Bytes(Create(time, pid, pid, "thread", RAW_TASK_THREAD));
        const auto ended = Bytes(Exit(time, pid, "thread", RAW_TASK_THREAD));
        insert(end(), static_cast<size_t>(std::abs(count)), count > 0 ? begun : ended);
    }
};

// What a device does: a boot's processes, their memory, threads, forks and exits.
void AddOrdinaryLife(Records* records) {
    std::mt19937_64 random(4);
    const auto pick = [&](int64_t count) { return static_cast<int64_t>(random() % count); };
    for (int32_t pid = FIRST_PID; pid < FIRST_PID + 30; ++pid) {
        records->add(Init(NANOSECONDS_PER_SECOND, pid, FIRST_PID, 5, "app." + std::to_string(pid),
                          {pick(1 << 28), pick(1 << 28), pick(1 << 28), pick(2)}));
    }
    for (int64_t time = NANOSECONDS_PER_SECOND; time < 10 * NANOSECONDS_PER_SECOND;
         time += pick(NANOSECONDS_PER_SECOND / 10)) {
        const auto pid = static_cast<int32_t>(FIRST_PID + pick(40));
        const int64_t kind = pick(100);
        if (kind < 70) {
            const int64_t size = pick(1 << 17) * 4096;
            records->add(Rss(time, pid, static_cast<int32_t>(pick(4)), size));
        } else if (kind < 90) {
            records->addThreads(static_cast<int>(pick(20) - 8), time, pid);
        } else if (kind < 95) {
            records->add(Create(time, FIRST_PID, pid, "child"));
        } else {
            records->add(Exit(time, pid, "child"));
        }
    }
}

// Each rule of a notification, to both sides of its limit.
void AddRules(Records* records) {
    constexpr int64_t BORN = 1000;
    constexpr int64_t OLD = BORN + REPORT_AGE;
    records->add(Create(BORN, 1, 500, "young"));
    records->addThreads(5, BORN, 500);  // were counted when the process was found
    records->addThreads(11, OLD - 1, 500);
    records->add(Rss(OLD - 1, 500, 1, 1 << 20));
    records->addThreads(1, OLD, 500);
    records->add(Rss(OLD, 500, 1, 1 << 20));
    records->addThreads(10, OLD, 500);
    records->addThreads(1, OLD, 500);
    records->addThreads(-11, OLD, 500);
    for (const int64_t last : {4095, 4096}) {  // 16 KiB in all, up and down
        for (const int32_t member : {0, 2, 3}) {
            records->add(Rss(OLD, 500, member, 4096));
        }
        records->add(Rss(OLD, 500, 1, (1 << 20) - last));
    }
    const auto addProcess = [&](int32_t pid, const char* name = "name", int32_t ppid = 1) {
        records->add(Create(BORN, ppid, pid, name), Create(BORN, ppid, pid, "is there already"),
                     Rss(OLD, pid, 1, 16384), Exit(OLD, pid, "its name now"));
    };
    for (const int32_t pid : {-1, 0, 1, 2, 300, 301}) {
        addProcess(pid);
    }
    for (const char* name : {"dumpsys2", "dumpsy", "sh", "shell", "s", "ssh"}) {
        addProcess(600, name);
    }
    for (const int32_t ppid : {1, 2, 3}) {
        addProcess(600, "name", ppid);
    }
}

// What nothing should stumble over.
void AddOddities(Records* records) {
    constexpr int32_t PID = FIRST_PID + 100000;
    constexpr int64_t NOW = 100 * NANOSECONDS_PER_SECOND;
    records->add(Init(-5, PID, -1, -1, "negative", {-1, -1024, -1025, INT64_MIN}, -1),
                 Init(0, PID + 1, 0, -INT32_MAX, "", {}, INT64_MAX),
                 Init(NOW, PID + 2, PID, INT32_MAX, "sixteen-letters!",
                      {INT64_MAX, INT64_MAX, INT64_MAX, INT64_MAX}, INT64_MIN),
                 Init(NOW, PID + 3, 2, 1, "percent %s %n \\", {1023, 1024, 1025, 2047}),
                 Init(NOW, PID + 3, 2, 1, "\u6f22\u5b57", {1024, 2048, 4096, 8192}),
                 Init(NOW, INT32_MAX, -INT32_MAX, 1, "\xc3\xa4\xff\x1b[31m", {1, 0, 0, 0}),
                 Init(NOW, -7, 1, 1, "\u202e\u009b\n\t\"\x7f\xf0\u2028\xed\xa0\x80", {1LL << 40}));
    // Totals that wrap among others that do not: the comparison runs in a circle.
    for (int32_t i = 0; i < 6; ++i) {
        records->add(Init(NOW, PID + 10 + i, 1, 1, "wraps", {INT64_MAX / 6 * i, 1LL << 62, i, 0}));
    }
    // Their names and parents are looked up in /proc, where they are not.
    records->add(Create(NOW, 0, PID + 20, "no parent"), Create(NOW, PID, PID + 21, "main"));
    for (const int32_t member : {0, 1, 2, 3, 4, -1, INT32_MAX}) {
        for (const int64_t size : {int64_t{0}, int64_t{4096}, int64_t{-1}, INT64_MIN, INT64_MAX}) {
            records->add(Rss(NOW + REPORT_AGE, PID + 21, member, size));
        }
    }
    records->add(Rss(INT64_MAX, PID + 2, 1, 0), Rss(INT64_MIN, PID + 2, 1, 1LL << 50));
    records->addThreads(1, NOW + 1, PID + 2);
    records->addThreads(-45, NOW + REPORT_AGE, PID + 20);
    // Nobody, and no task type.
    records->add(Rss(NOW, PID + 999, 0, 4096));
    records->addThreads(20, NOW, PID + 999);
    for (const int32_t type : {0, 3, -1}) {
        records->add(Create(NOW, 1, PID + 30, "no such type", type),
                     Exit(NOW, PID + 3, "no such type", type));
    }
    // Types without a handler.
    records->add(RawDmabufAllocEvent{Header(RAW_EVENT_DMABUF_SIZE, NOW), PID, 0, 1LL << 33});
    RawCgroupAttachEvent moved{
        Header(RAW_EVENT_CGROUP_ATTACH, NOW), PID, 1, 2, 0, UINT64_MAX, "moved", {}};
    SetName(moved.path, std::string(64, '/'));
    records->add(moved,
                 RawFdUpdateEvent{Header(RAW_EVENT_FD_UPDATE, NOW), PID, 0, 64, 8, {'f', 'd'}});
}

// Short records, whose rest counts as 0, and longer ones.
void AddCutRecords(Records* records, size_t step) {
    constexpr int32_t PID = FIRST_PID + 200000;
    Records whole;
    whole.add(Init(5, PID, 1, 3, "cut short", {4096, 8192, 12288, 16384}),
              Rss(9 * NANOSECONDS_PER_SECOND, PID, 1, 1 << 30), Create(5, 1, PID + 1, "short fork"),
              Exit(5, PID + 2, "short exit"));
    for (const std::string& record : whole) {
        for (size_t length = 4; length < record.size(); length += step) {
            records->push_back(record.substr(0, length));
        }
        records->push_back(record);
        records->push_back(record + std::string(12, '\xee'));
    }
}

class GoldenTest : public ServedTest {
  protected:
    void SetUp() override {
        ServedTest::SetUp();
        InitBasetime();
        for (const int32_t type : {0, 1, 2, 3, 4, 5, 6, 50001, 50002, 50003, 50004}) {
            ASSERT_TRUE(IsSkipped() || client.subscribe(type) == 0);
        }
    }

    // Hands them over as a ring buffer does, each in a block of exactly its size. The events that
    // the client gets for them, as it shows them in JSON and as text.
    std::string feed(Records records) {
        records.add(Rss(0, 0, -1, 4711));
        for (const std::string& record : records) {
            std::vector<char> block(record.begin(), record.end());
            const auto size = static_cast<unsigned>(block.size());
            EXPECT_EQ(TesuBpfService::handleBpfRingBuffEvent(nullptr, block.data(), size), 0);
        }
        std::string shown;
        auto event = client.next();
        for (; event && event->body != records.back(); event = client.next()) {
            shown += show(event->body);
        }
        EXPECT_TRUE(event.has_value()) << "events are missing";
        return shown;
    }

    std::string show(const std::string& bytes) {
        const std::vector<char> block(bytes.begin(), bytes.end());
        const Event event = DecodeEvent(block.data(), static_cast<uint32_t>(block.size()));
        const std::string json = FormatEventJson(event, 7);
        EXPECT_TRUE(nlohmann::json::accept(json)) << json;
        std::string line;
        text.append(event, 7, &line);
        const auto isControl = [](unsigned char c) { return c < 0x20 || c == 0x7f; };
        EXPECT_EQ(std::ranges::find_if(line, isControl), line.end() - 1) << line;
        return json + "\n" + line;
    }

  private:
    TextFormatter text{false};
};

TEST_F(GoldenTest, EveryMachineGivesTheSameEventsAndDumps) {
    Records records;
    AddOrdinaryLife(&records);
    AddRules(&records);
    AddOddities(&records);
    AddCutRecords(&records, 9);
    const auto begin = static_cast<int64_t>(GetSystemSecondsTime());
    ExpectGolden("events.golden", feed(records));

    // The time of day must not show.
    for (const int32_t pid : {500, 5000031, 5000035, 5000039, 5100020, 5100021, 5200001}) {
        TesuTask* const task = TesuTaskManager::GetInstance()->GetTesuTask(pid);
        ASSERT_GE(std::exchange(task->initTimeStamp, 1234567890), begin) << pid;
    }
    const auto expectDump = [](const std::string& name, auto dump) {
        dump(0);
        const std::regex time("time: \\d+");
        ExpectGolden(name, std::regex_replace(ReadWholeFile(DUMP), time, "time: NOW"));
    };
    expectDump("tasks.golden", HandleDumpSignal);
    std::filesystem::rename(DUMP, "/data/elsewhere");
    std::filesystem::create_symlink("/data/elsewhere", DUMP);
    expectDump("tasks-no-kernel.golden", HandleNonKernelDumpSignal);
    expectDump("tasks-normal.golden", HandleDumpSignalNormal);
    expectDump("tasks-no-kernel-normal.golden", HandleNonKernelDumpSignalNormal);
    EXPECT_NE(ReadWholeFile("/data/elsewhere"), ReadWholeFile(DUMP)) << "written through a link";
}

TEST_F(GoldenTest, AnyBytesAreSurvivedAndShown) {
    Records records;
    AddCutRecords(&records, 1);
    std::mt19937_64 random(1);
    for (int i = 0; i < 5000; ++i) {
        std::string record(random() % 130, '\0');
        std::generate(record.begin(), record.end(), [&] { return static_cast<char>(random()); });
        records.push_back(record.replace(0, 4, WireClient::word(random() % 7)));
    }
    feed(records);
    char cut[3] = {};
    EXPECT_EQ(TesuBpfService::handleBpfRingBuffEvent(nullptr, cut, sizeof(cut)), -1);
    show("abc");
}

}  // namespace
}  // namespace Tesu::Bpf
