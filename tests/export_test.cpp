// SPDX-License-Identifier: Apache-2.0
//
// A recording as a trace: decoded by the tool that the format's owners make, by a definition that
// has the names and numbers of theirs.
#include "client/export/export.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <time.h>

#include <cstdlib>
#include <string>

#include "client/exit_status.h"
#include "recording/writer.h"
#include "records/notification.h"
#include "tests/support/golden.h"
#include "tests/support/records.h"
#include "tests/support/temp_dir.h"

namespace Tesu::Bpf {
namespace {

constexpr int64_t MS = 1'000'000;

int64_t now = 100'000 * MS;    // of the monotonic clock, in place of the kernel's
int64_t asleep = 10'000 * MS;  // what CLOCK_BOOTTIME has more

ProcessSnapshot Process(int32_t pid, int32_t ppid, const std::string& name, int64_t startTime,
                        bool isKernelThread = false) {
    ProcessSnapshot process{
        .pid = pid, .ppid = ppid, .uid = 1000, .name = name, .threads = 2, .openFds = {}};
    process.isKernelThread = isKernelThread;
    process.memory = {4096, 8192, 0, 1 << 20};
    process.startTime = startTime;
    process.readTime = now;
    return process;
}

// What happened is received a millisecond later.
struct Recording {
    template <class Record>
    void add(const Record& record) {
        now = record.header.time + MS;
        writer.addEvent(now, &record, sizeof(record));
    }
    void addProcesses(BlockType type, const std::vector<ProcessSnapshot>& processes) {
        writer.addProcesses(type, now, processes);
    }

    RecordingWriter writer;
};

// pid 400 has three lives, of which the second has no name of its own in /proc.
void AddLives(Recording* recording) {
    const auto at = [](int64_t milliseconds) { return (100'000 + milliseconds) * MS; };
    recording->add(Create(at(1000), 300, 400, "supervise"));
    recording->add(Rss(at(1001), 400, RSS_ANON, 128));
    recording->add(Create(at(1100), 400, 400, "supervise", RAW_TASK_THREAD));
    recording->addProcesses(BLOCK_PROCESS, {Process(400, 300, "updaterd", at(1000))});
    for (const auto& [pid, member, size] :
         {std::array{400, 1, -1}, {400, 4, 1}, {400, -1, 1}, {999, 1, 1}}) {
        recording->add(Rss(at(1300), pid, member, size));  // no size, no kind, nobody
    }
    recording->add(Exit(at(1400), 400, "worker", RAW_TASK_THREAD));
    recording->add(Exit(at(1401), 400, "worker"));
    recording->add(Rss(at(1402), 400, RSS_ANON, 4096));  // of nobody
    recording->add(Create(at(1500), 300, 400, "supervise"));
    recording->add(Exit(at(1600), 400, "crashd"));
    recording->add(Create(at(1700), 300, 400, "supervise"));
    // Its parent has gone when it is read.
    recording->add(Create(at(1800), 400, 411, "supervise"));
    recording->add(Create(at(1801), 300, 412, "supervise"));
    recording->add(Exit(at(1900), 400, "supervise"));
    recording->addProcesses(BLOCK_PROCESS, {Process(411, 1, "daemon", at(1800))});
    recording->add(RawFdUpdateEvent{Header(RAW_EVENT_FD_UPDATE, at(2000)), 300, 0, 64, 8, {}});
    recording->add(RawDmabufAllocEvent{Header(RAW_EVENT_DMABUF_SIZE, at(2001)), 300, 0, 1 << 20});
    RecordsLostNotification lost{};
    lost.header = {.type = NOTIFICATION_RECORDS_LOST, .padding = 0, .time = at(2002)};
    lost.lost = 12;
    recording->add(lost);
}

void MakeRecording(const std::string& path) {
    HeaderBlock header{};
    header.clocks = ReadClocks();
    header.pageSize = 4096;
    header.processors = 4;
    SetName(header.system, "Linux");
    SetName(header.recorder, "tesubpf 1.0.0");
    auto writer = RecordingWriter::create(path, header, {1, 2, 3, 4, 6, 50005});
    ASSERT_TRUE(writer.ok()) << writer.error();
    Recording recording{std::move(*writer)};
    const auto addAll = [&](const ProcessSnapshot& process) {
        recording.addProcesses(BLOCK_SNAPSHOT, {Process(1, 0, "init", 5 * MS),
                                                Process(2, 0, "kthreadd", 5 * MS, true), process});
    };
    addAll(Process(300, 1, "supervise", 50'000 * MS));
    AddLives(&recording);
    now += 1000 * MS;
    recording.writer.addNews(now, STATE_LOST, 0, "gone");
    asleep *= 2;
    recording.writer.addClocks();
    now += 1000 * MS;
    recording.writer.addNews(now, STATE_SUBSCRIBED, 0, "");
    // 300 is another one, 411 and 412 have gone; the exit of one was under way.
    addAll(Process(300, 1, "other", now - 500 * MS));
    recording.add(Exit(now + 5 * MS, 411, "daemon"));
    recording.writer.end(END_ASKED);
    EXPECT_EQ(recording.writer.failure(), "");
}

std::string Decode(const std::string& trace) {
    const std::string text = trace + ".text";
    const std::string decode = "cd " TESUBPF_TEST_DATA " && protoc --decode=Trace perfetto.proto <";
    EXPECT_EQ(std::system((decode + trace + " >" + text).c_str()), 0);
    return ReadWholeFile(text);
}

TEST(ExportTest, TheTraceHasWhatTheRecordingHas) {
    const TempDir temp;
    const TerminationSignals signals;
    const std::string path = temp.path("recording");
    MakeRecording(path);
    const auto run = [&](const std::string& name, const char* since, const char* until) {
        testing::internal::CaptureStderr();
        const int status = RunExport({path, temp.path(name), since, until}, signals);
        return std::to_string(status) + testing::internal::GetCapturedStderr();
    };
    EXPECT_EQ(run("all", "", ""), "0");
    ExpectGolden("export.golden", Decode(temp.path("all")));
    // From its middle on, with what was known then; and up to there.
    EXPECT_EQ(run("part", "+1.95", "+4"), "0");
    ExpectGolden("export-part.golden", Decode(temp.path("part")));

    const std::string whole = ReadWholeFile(path);
    temp.write("recording", whole.substr(0, whole.size() - 1));
    EXPECT_THAT(run("cut", "", ""), testing::MatchesRegex("0tesubpf: .* cut short .*\n"));
    EXPECT_EQ(ReadWholeFile(temp.path("cut")), ReadWholeFile(temp.path("all")));
    EXPECT_THAT(run("cut", "", ""), testing::StartsWith("3"));
    EXPECT_EQ(ReadWholeFile(temp.path("cut")), ReadWholeFile(temp.path("all")));
    EXPECT_EQ(RunExport({path, "/dev/full/x", "", ""}, signals), EXIT_FAILED);
}

}  // namespace
}  // namespace Tesu::Bpf

extern "C" int clock_gettime(clockid_t clock, timespec* time) noexcept {
    using namespace Tesu::Bpf;
    constexpr int64_t EPOCH = 1'700'000'000'000 * MS;
    const int64_t value =
        now + (clock == CLOCK_BOOTTIME ? asleep : 0) + (clock == CLOCK_REALTIME ? EPOCH : 0);
    *time = {.tv_sec = static_cast<time_t>(value / (1000 * MS)),
             .tv_nsec = static_cast<long>(value % (1000 * MS))};
    return 0;
}
