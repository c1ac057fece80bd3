// SPDX-License-Identifier: Apache-2.0
//
// Recordings: the format, and what becomes of a file that was cut or changed; and recording and
// showing recordings as a user does it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <csignal>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "client/replay/replay.h"
#include "recording/reader.h"
#include "recording/writer.h"
#include "tests/support/child_process.h"
#include "tests/support/fake_service.h"
#include "tests/support/golden.h"
#include "tests/support/kernel.h"
#include "tests/support/records.h"
#include "tests/support/temp_dir.h"

namespace Tesu::Bpf {
namespace {

std::string Show(const std::vector<ProcessSnapshot>& processes) {
    std::string text;
    for (const ProcessSnapshot& process : processes) {
        text += " [" + process.name;
        for (const int64_t value :
             {int64_t{process.pid}, int64_t{process.ppid}, int64_t{process.uid},
              int64_t{process.threads}, int64_t{process.isKernelThread}, int64_t{process.isEnding},
              process.memory[0], process.memory[1], process.memory[2], process.memory[3],
              process.openFds.value_or(-1), process.startTime, process.readTime}) {
            text += " " + std::to_string(value);
        }
        text += "]";
    }
    return text;
}

std::string Show(const RecordingItem& item) {
    std::string text = std::to_string(item.what.index());
    if (const auto* const event = std::get_if<RecordedEvent>(&item.what)) {
        return text + " at " + std::to_string(item.time) + " " +
               std::string(event->data, event->size);
    }
    if (const auto* const news = std::get_if<RecordedNews>(&item.what)) {
        return text + " " + std::to_string(news->state) + std::to_string(news->eventType) +
               news->reason;
    }
    if (const auto* const snapshot = std::get_if<RecordedSnapshot>(&item.what)) {
        text += Show(snapshot->processes);
    }
    if (const auto* const refresh = std::get_if<RecordedRefresh>(&item.what)) {
        text += Show(refresh->processes);
        for (const int32_t pid : refresh->gone) {
            text += " gone " + std::to_string(pid);
        }
    }
    if (const auto* const end = std::get_if<EndBlock>(&item.what)) {
        text += " " + std::to_string(end->reason) + " " + std::to_string(end->records);
    }
    return text;
}

// What a reader gives of the bytes, and where it says that they stop being a recording.
struct Reading {
    bool isOpened = false;
    std::string items;
    std::string damage;
    std::map<size_t, std::string> itemsUpTo;  // by the end of a block
};

Reading Read(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
    Reading reading;
    auto reader = RecordingReader::open(path);
    reading.isOpened = reader.ok();
    if (reader.ok()) {
        reading.itemsUpTo[static_cast<size_t>(reader->position())] = "";
        while (const RecordingItem* const item = reader->next()) {
            reading.items += Show(*item) + "\n";
            reading.itemsUpTo[static_cast<size_t>(reader->position())] = reading.items;
        }
        reading.damage = reader->damage();
    }
    return reading;
}

std::string SmallRecording(const std::string& path) {
    auto writer =
        RecordingWriter::create(path, DescribeMachine("test", "/a/socket"), {1, 2, 3, 50005});
    EXPECT_TRUE(writer.ok()) << writer.error();
    ProcessSnapshot process{
        .pid = 7, .ppid = 1, .uid = 1000, .name = "a name", .threads = 3, .openFds = {}};
    process.memory = {4096, 8192, 12288, 16384};
    process.startTime = -5;
    process.readTime = 99;
    writer->addNews(90, STATE_SUBSCRIBED, 0, "");
    const std::vector processes = {process,
                                   {.pid = 8, .name = "", .isEnding = true, .openFds = 17}};
    writer->addProcesses(BLOCK_SNAPSHOT, 95, processes);
    for (const int64_t time :
         {int64_t{100}, int64_t{101}, int64_t{100} + UINT32_MAX, INT64_MAX / 9}) {
        writer->addEvent(time, "record", 6);
    }
    writer->addProcesses(BLOCK_PROCESS, 97, {process}, {9, 10});
    writer->addClocks();
    writer->addNews(98, STATE_REFUSED, 3, "a reason");
    writer->end(END_ASKED);
    return ReadWholeFile(path);
}

TEST(RecordingTest, AnyCutAndAnyChangedByteLeavesWhatStandsBefore) {
    const TempDir temp;
    const std::string whole = SmallRecording(temp.path("whole"));
    const Reading all = Read(temp.path("copy"), whole);
    EXPECT_EQ(all.damage, "");
    EXPECT_EQ(
        all.items,
        "1 30\n"
        "2 [a name 7 1 1000 3 0 0 4096 8192 12288 16384 -1 -5 99] [ 8 0 -1 0 0 1 0 0 0 0 17 0 0]\n"
        "0 at 100 record\n0 at 101 record\n0 at 4294967395 record\n"
        "0 at " +
            std::to_string(INT64_MAX / 9) +
            " record\n"
            "3 [a name 7 1 1000 3 0 0 4096 8192 12288 16384 -1 -5 99] gone 9 gone 10\n"
            "4\n1 43a reason\n5 1 4\n");
    const size_t headerEnd = all.itemsUpTo.begin()->first;
    for (size_t at = 0; at < whole.size(); ++at) {
        std::string changed = whole;
        changed[at] = static_cast<char>(~changed[at]);
        for (const std::string& bytes : {whole.substr(0, at), changed}) {
            const Reading some = Read(temp.path("copy"), bytes);
            ASSERT_EQ(some.isOpened, at >= headerEnd) << at;
            if (some.isOpened) {
                // The block that the byte is in begins where those before it end.
                const auto& [block, items] = *std::prev(all.itemsUpTo.upper_bound(at));
                ASSERT_EQ(some.items, items) << at;
                ASSERT_TRUE(some.damage.ends_with(" at byte " + std::to_string(block)))
                    << some.damage;
            }
        }
    }
}

using testing::HasSubstr;

// Which of the test's events a recording has, and how it ends. At the test's events' front is a
// type that there is not, and their number.
struct Contents {
    std::vector<uint32_t> numbers;
    bool hasSnapshot = false;
    uint32_t ending = 0;
};

Contents Read(const std::string& path) {
    Contents contents;
    auto reader = RecordingReader::open(path);
    EXPECT_TRUE(reader.ok()) << reader.error();
    while (const RecordingItem* const item = reader.ok() ? reader->next() : nullptr) {
        if (const auto* const event = std::get_if<RecordedEvent>(&item->what)) {
            contents.numbers.push_back(WireClient::wordAt(std::string(event->data, 8), 4));
        }
        contents.hasSnapshot |= std::holds_alternative<RecordedSnapshot>(item->what);
        if (const auto* const end = std::get_if<EndBlock>(&item->what)) {
            contents.ending = end->reason;
            EXPECT_EQ(end->records, contents.numbers.size());
        }
    }
    EXPECT_EQ(reader->damage(), "");
    return contents;
}

class RecordTest : public testing::Test {
  protected:
    // Of TESUBPFRECORD_PATH or TESUBPF_PATH; ends with its subscriptions accepted.
    std::unique_ptr<ChildProcess> record(const std::vector<std::string>& program) {
        std::vector<std::string> arguments = program;
        arguments.insert(arguments.end(),
                         {"--output", path, "--socket", name, "--type", "records-lost"});
        auto recorder = std::make_unique<ChildProcess>(arguments);
        service.acceptClient(1);
        return recorder;
    }
    void sendEvents(uint32_t count) {
        for (uint32_t i = 0; i < count; ++i) {
            const std::string body = WireClient::word(99) + WireClient::word(next++);
            const std::string frame = WireClient::frame(3, body + std::string(30000, 'x'));
            // The recorder may have ended.
            send(service.descriptor(), frame.data(), frame.size(), MSG_NOSIGNAL);
        }
    }

    const TempDir temp{};
    const std::string path = temp.path("recording");
    const std::string name = FakeService::uniqueName();
    FakeService service{name};
    uint32_t next = 0;
};

TEST_F(RecordTest, TwoHalvesStandAloneAndLoseNothingBetweenThem) {
    constexpr uint32_t COUNT = 90;
    const auto recorder = record({TESUBPF_PATH, "record", "--max-size", "1M"});
    ASSERT_TRUE(recorder->waitForError("connected"));
    sendEvents(COUNT);
    service.hangUp();
    ASSERT_TRUE(recorder->waitForError("the connection was lost"));
    recorder->sendSignal(SIGTERM);
    EXPECT_EQ(recorder->waitForExit(), 0) << recorder->error;
    const Contents older = Read(path + ".1");
    const Contents newer = Read(path);
    EXPECT_TRUE(older.hasSnapshot && newer.hasSnapshot);
    EXPECT_EQ(older.ending, END_CONTINUED);
    EXPECT_EQ(newer.ending, END_ASKED);
    std::vector<uint32_t> numbers = older.numbers;
    numbers.insert(numbers.end(), newer.numbers.begin(), newer.numbers.end());
    ASSERT_FALSE(numbers.empty());
    EXPECT_GT(numbers.front(), 0U) << "the first half is there still";
    for (uint32_t number = numbers.front(); const uint32_t recorded : numbers) {
        EXPECT_EQ(recorded, number++);
    }
    EXPECT_EQ(numbers.back(), COUNT - 1);
    EXPECT_THAT(OutputOf({TESUBPF_PATH, "info", path + ".1"}), HasSubstr("the other half"));
}

TEST_F(RecordTest, AFileThatCannotGrowIsEndedProperly) {
    const auto recorder = record({TESUBPFRECORD_PATH});
    ASSERT_TRUE(recorder->waitForError("connected"));
    constexpr rlimit LIMIT{4'000'000, 4'000'000};
    ASSERT_EQ(prlimit(recorder->pid(), RLIMIT_FSIZE, &LIMIT, nullptr), 0);
    sendEvents(200);
    EXPECT_EQ(recorder->waitForExit(), 3);
    EXPECT_THAT(recorder->error, HasSubstr("cannot write " + path));
    const Contents contents = Read(path);
    EXPECT_EQ(contents.ending, END_NO_SPACE);
    EXPECT_GT(contents.numbers.size(), 0U);
    EXPECT_EQ(contents.numbers.back(), contents.numbers.size() - 1);
    // Nothing is overwritten.
    ChildProcess again({TESUBPFRECORD_PATH, "-o", path, "-S", name});
    EXPECT_EQ(again.waitForExit(), 3);
}

// Everything that a table shows, at each of these moments.
std::string Tables(Replay* replay, const std::vector<int64_t>& moments) {
    std::string text;
    for (const int64_t moment : moments) {
        replay->goTo(moment);
        const ProcessView view = replay->model().view({});
        text += std::to_string(replay->now()) + " " + std::to_string(replay->timeOfDay()) + " " +
                std::to_string(view.totals.recordsPerSecond) + ":";
        for (const ProcessRow& row : view.rows) {
            text += " " + row.name + " " + std::to_string(row.resident + row.age + row.change);
            for (const uint32_t size : row.history) {
                text += "," + std::to_string(size);
            }
        }
        text += "\n";
    }
    return text;
}

TEST(ReplayTest, AMomentLooksTheSameWhereverOneComesFrom) {
    constexpr int64_t SECOND = NANOSECONDS_PER_SECOND;
    const TempDir temp;
    const std::string path = temp.path("recording");
    HeaderBlock header = DescribeMachine("test", "");
    const int64_t begin = header.clocks.monotonic = 1000 * SECOND + 7;
    auto writer = RecordingWriter::create(path, header, {1, 2, 3});
    ASSERT_TRUE(writer.ok());
    std::vector<ProcessSnapshot> processes(1);
    processes[0].name = "leaky";
    processes[0].pid = 5;
    for (int64_t i = 0; i < 300; ++i) {
        const int64_t time = begin + i * SECOND * 9 / 10;
        const int32_t pid = i < 50 ? 5 : 100 + static_cast<int32_t>(i);
        if (i % 80 == 40) {
            processes[0].readTime = time;
            writer->addProcesses(BLOCK_SNAPSHOT, time, processes);
        }
        for (const std::string& record :
             {Bytes(Create(time, 5, 100 + static_cast<int32_t>(i), "x")),
              Bytes(Rss(time + 1, pid, RSS_ANON, i << 20))}) {
            writer->addEvent(time, record.data(), static_cast<uint32_t>(record.size()));
        }
    }
    writer->end(END_ASKED);
    auto forwards = Replay::open(path);
    auto backwards = Replay::open(path);
    ASSERT_TRUE(forwards.ok() && backwards.ok());
    std::vector<int64_t> moments;
    for (int64_t i = 0; i < 60; ++i) {
        moments.push_back(begin + i * 5 * SECOND + i * SECOND / 7);
    }
    const std::string expected = Tables(&*forwards, moments);
    std::string found;
    for (size_t i = moments.size(); i-- > 0;) {
        found.insert(0, Tables(&*backwards, {moments[i]}));
    }
    EXPECT_EQ(found, expected);
    EXPECT_THAT(expected, HasSubstr("leaky"));
}

// The file was written by a 32-bit ARM device and must be read for ever.
TEST(ReplayTest, ShowsARecordingOfAnotherMachineAsItDid) {
    const std::string file = TESUBPF_TEST_RECORDING;
    setenv("TZ", "UTC0", 1);
    setenv("LC_ALL", "C.UTF-8", 1);
    setenv("COLUMNS", "100", 1);
    std::string text = OutputOf({TESUBPF_PATH, "info", file});
    text.replace(text.find(file), file.size(), "FILE");
    text +=
        OutputOf({TESUBPF_PATH, "top", "--from", file, "--batch", "--no-kernel", "--at", "+1:05"});
    const std::string events = OutputOf({TESUBPF_PATH, "watch", "--from", file, "--type", "all"});
    const std::string json = OutputOf({TESUBPF_PATH, "watch", "--from", file, "--json"});
    text += events.substr(events.size() - 1000) + json.substr(json.size() - 1000);
    ExpectGolden("recording.golden", text);
}

// Whether the exit of the process is in the recording, which may still be written.
bool HasExit(const std::string& path, pid_t pid) {
    auto reader = RecordingReader::open(path);
    while (const RecordingItem* const item = reader.ok() ? reader->next() : nullptr) {
        const auto* const event = std::get_if<RecordedEvent>(&item->what);
        const auto exit = event != nullptr ? ReadPrefix<RawTaskExitEvent>(event->data, event->size)
                                           : RawTaskExitEvent{};
        if (exit.header.type == RAW_EVENT_TASK_EXIT && exit.pid == pid) {
            return true;
        }
    }
    return false;
}

class RecordLiveTest : public KernelTest {};

TEST_F(RecordLiveTest, AStormIsShownAgainAsItWasShownLive) {
    const TempDir temp;
    const std::string path = temp.path("recording");
    OutputOf({TESUBPFLOAD_PATH, "--ring-size", std::to_string(32 << 20)});
    ChildProcess daemon(PatientDaemon());
    ASSERT_TRUE(daemon.waitForOutput("serving on @")) << daemon.error;
    ChildProcess recorder({TESUBPF_PATH, "record", "-o", path});
    ASSERT_TRUE(recorder.waitForError("connected")) << recorder.error;
    ASSERT_TRUE(WaitUntil([] { return IsEnabled(RING_CORE); })) << daemon.error;
    const std::vector<std::string> watch = {TESUBPF_PATH, "watch", "--json", "--type", "fork,exit"};
    ChildProcess watcher(watch);
    ASSERT_TRUE(watcher.waitForError("connected")) << watcher.error;
    ChildProcess workload({TESUBPF_WORKLOAD_PATH, "processes", "300"});
    ASSERT_TRUE(workload.waitForOutput("done"));
    const auto liveAndEnd = [] {
        ChildProcess marker({"/bin/true"});
        EXPECT_EQ(marker.waitForExit(), 0);
        return marker.pid();
    };
    const std::string mark = "\"pid\":" + std::to_string(liveAndEnd()) + ",\"comm\"";
    EXPECT_TRUE(watcher.waitForOutput(mark));
    watcher.sendSignal(SIGTERM);
    EXPECT_EQ(watcher.waitForExit(), 0);
    // All that the one was told before this the other has when it has this.
    EXPECT_TRUE(WaitUntil([&path, pid = liveAndEnd()] { return HasExit(path, pid); }));
    recorder.sendSignal(SIGINT);
    EXPECT_EQ(recorder.waitForExit(), 0) << recorder.error;
    std::vector<std::string> replay = watch;
    replay.insert(replay.end(), {"--from", path});
    const std::string shown = OutputOf(replay);
    EXPECT_GT(watcher.output.size(), 300U * 2 * 100);
    EXPECT_NE(shown.find(watcher.output), std::string::npos);
    EXPECT_THAT(OutputOf({TESUBPF_PATH, "top", "--from", path, "--batch"}),
                HasSubstr(" " + std::to_string(getpid()) + " "));
}

}  // namespace
}  // namespace Tesu::Bpf
