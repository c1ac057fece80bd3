// SPDX-License-Identifier: Apache-2.0
//
// The picture of the processes: what events and /proc make of it, in every order of the two.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "client/proc_snapshot.h"
#include "client/process_model.h"
#include "client/sample_history.h"
#include "client/young_exits.h"
#include "tests/support/child_process.h"

namespace Tesu::Bpf {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

constexpr int64_t SECOND = 1'000'000'000;
constexpr int64_t START = 100 * SECOND;
constexpr int64_t MIB = 1 << 20;

template <size_t N>
void SetName(char (&field)[N], const std::string& name) {
    std::memset(field, 0, N);
    std::memcpy(field, name.data(), std::min(N, name.size()));
}

RawTaskCreateEvent Create(int32_t pid, int64_t time, int32_t taskType = RAW_TASK_PROCESS) {
    RawTaskCreateEvent event{};
    event.header = {RAW_EVENT_TASK_CREATE, 0, time};
    event.pid = pid;
    event.ppid = 1;
    event.taskType = taskType;
    SetName(event.comm, "parent");
    return event;
}

RawTaskExitEvent Exit(int32_t pid, int64_t time, int32_t taskType = RAW_TASK_PROCESS) {
    RawTaskExitEvent event{};
    event.header = {RAW_EVENT_TASK_EXIT, 0, time};
    event.pid = pid;
    event.taskType = taskType;
    SetName(event.comm, "crashd");
    return event;
}

RawRssStatEvent Rss(int32_t pid, int64_t time, int32_t member, int64_t size) {
    return {{RAW_EVENT_RSS_STAT, 0, time}, pid, member, size};
}

ProcessSnapshot Found(int32_t pid, int64_t readTime, const std::string& name = "found") {
    ProcessSnapshot process;
    process.pid = pid;
    process.name = name;
    process.threads = 4;
    process.startTime = START;
    process.readTime = readTime;
    process.memory[MEMORY_ANON] = 10 * MIB;
    process.openFds = 5;
    return process;
}

class ProcessModelTest : public testing::Test {
  protected:
    void snapshot(int64_t begin, const std::vector<ProcessSnapshot>& processes) {
        model.beginSnapshot(begin);
        model.finishSnapshot(processes);
    }

    // The row of a process; one with pid 0 when it is not there.
    ProcessRow row(int32_t pid) {
        for (const ProcessRow& row : model.view({}).rows) {
            if (row.pid == pid) {
                return row;
            }
        }
        return {};
    }

    std::vector<int32_t> order(const ViewRequest& request) {
        std::vector<int32_t> pids;
        for (const ProcessRow& row : model.view(request).rows) {
            pids.push_back(row.pid);
        }
        return pids;
    }

    ProcessModel model;
};

TEST_F(ProcessModelTest, TakesOfEachValueTheNewer) {
    const int64_t read = START + 10 * SECOND;
    // Both before the process is read: one told before, one after the snapshot is merged.
    model.apply(Rss(7, read - 2, MEMORY_ANON, 1 * MIB));
    snapshot(read - 1, {Found(7, read)});
    model.apply(Rss(7, read - 1, MEMORY_ANON, 2 * MIB));
    EXPECT_EQ(row(7).memory[MEMORY_ANON], 10 * MIB);
    model.apply(Rss(7, read + 1, MEMORY_ANON, 30 * MIB));
    model.apply(RawFdUpdateEvent{{RAW_EVENT_FD_UPDATE, 0, read + 1}, 7, 0, 90, 80, ""});
    model.apply(RawFdUpdateEvent{{RAW_EVENT_FD_UPDATE, 0, read - 1}, 7, 0, 1, 2, ""});
    EXPECT_EQ(row(7).resident, 30 * MIB);
    EXPECT_EQ(row(7).openFds, 90);
    // A second snapshot, one kind of whose values is older than what was told.
    snapshot(read, {Found(7, read)});
    EXPECT_EQ(row(7).resident, 30 * MIB);
    snapshot(read, {Found(7, read + 2)});
    EXPECT_EQ(row(7).resident, 10 * MIB);
    EXPECT_EQ(row(7).openFds, 5);

    // Nonsense changes nothing.
    model.apply(Rss(7, read + 3, MEMORY_KINDS, MIB));
    model.apply(Rss(7, read + 3, -1, MIB));
    model.apply(Rss(7, read + 3, MEMORY_ANON, -MIB));
    model.apply(Rss(7, INT64_MAX, MEMORY_ANON, MIB));
    model.apply(Rss(8, read + 3, MEMORY_ANON, MIB));
    model.apply(Exit(9, INT64_MIN));
    model.apply(Create(9, INT64_MIN));
    EXPECT_EQ(row(7).resident, 10 * MIB);
    EXPECT_THAT(model.view({}).rows, SizeIs(1));
}

TEST_F(ProcessModelTest, CountsAThreadOnceWhoeverToldFirst) {
    const int64_t read = START + 10 * SECOND;
    snapshot(read, {Found(7, read)});
    model.apply(Create(7, read - 1, RAW_TASK_THREAD));
    EXPECT_EQ(row(7).threads, 4);
    model.apply(Create(7, read + 1, RAW_TASK_THREAD));
    model.apply(Create(7, read + 2, RAW_TASK_THREAD));
    model.apply(Exit(7, read + 3, RAW_TASK_THREAD));
    EXPECT_EQ(row(7).threads, 5);
    // Of a process that is not known, and more exits than there were threads.
    model.apply(Create(8, read + 3, RAW_TASK_THREAD));
    for (int i = 0; i < 9; ++i) {
        model.apply(Exit(7, read + 4 + i, RAW_TASK_THREAD));
    }
    EXPECT_EQ(row(7).threads, 1);
    EXPECT_EQ(model.view({}).totals.threads, 1);
}

TEST_F(ProcessModelTest, ReadsAgainWhereProcMayHaveCountedAThreadThatHadEnded) {
    const int64_t read = START + 10 * SECOND;
    snapshot(read, {Found(7, read)});
    model.apply(Exit(7, read - 1, RAW_TASK_THREAD));
    EXPECT_EQ(row(7).threads, 4);
    EXPECT_THAT(model.takeRereads(read + SECOND, 9), ElementsAre(7));
    ProcessSnapshot again = Found(7, read + SECOND);
    again.threads = 3;
    model.applyReread(7, again);
    EXPECT_EQ(row(7).threads, 3);
    EXPECT_THAT(model.takeRereads(read + 9 * SECOND, 9), IsEmpty());
}

TEST_F(ProcessModelTest, AForkedProcessGetsItsOwnNameOnceItHasSettled) {
    model.apply(Create(7, START));
    EXPECT_EQ(row(7).name, "parent");
    EXPECT_EQ(row(7).threads, 1);
    EXPECT_THAT(model.takeRereads(START + ProcessModel::SETTLE_TIMES[0] - 1, 9), IsEmpty());
    EXPECT_THAT(model.takeRereads(START + ProcessModel::SETTLE_TIMES[0], 9), ElementsAre(7));
    model.apply(Rss(7, START + 5 * SECOND, MEMORY_ANON, 3 * MIB));
    ProcessSnapshot settled = Found(7, START + 4 * SECOND, "own");
    settled.memory[MEMORY_FILE] = MIB;
    model.applyReread(7, settled);
    EXPECT_EQ(row(7).name, "own");
    EXPECT_EQ(row(7).threads, 1);  // every thread is told
    EXPECT_EQ(row(7).resident, 4 * MIB);
    EXPECT_THAT(model.takeRereads(START + 99 * SECOND, 9), IsEmpty());

    // One that keeps the name of the fork is looked at again, but not without end.
    model.apply(Create(6, START));
    for (const int64_t time : ProcessModel::SETTLE_TIMES) {
        EXPECT_THAT(model.takeRereads(START + time - 1, 9), IsEmpty());
        EXPECT_THAT(model.takeRereads(START + time, 9), ElementsAre(6));
        model.applyReread(6, Found(6, START + time, "parent"));
    }
    EXPECT_THAT(model.takeRereads(START + 99 * SECOND, 9), IsEmpty());

    // One that was found in /proc before it had its own name.
    ProcessSnapshot young = Found(5, START + SECOND / 2, "parent");
    snapshot(START, {young});
    EXPECT_THAT(model.takeRereads(START + 99 * SECOND, 9), ElementsAre(5));

    // What has gone meanwhile stays gone, and is not read.
    model.apply(Create(8, START));
    model.apply(Create(9, START));
    model.apply(Exit(8, START + 1));
    EXPECT_THAT(model.takeRereads(START + SECOND, 9), ElementsAre(9));
    model.apply(Exit(9, START + 1));
    model.applyReread(9, Found(9, START + SECOND));
    EXPECT_EQ(row(9).pid, 0);
    // No more than asked for at a time; none is forgotten.
    for (int32_t pid = 20; pid < 25; ++pid) {
        model.apply(Create(pid, START));
    }
    EXPECT_THAT(model.takeRereads(START + SECOND, 3), ElementsAre(20, 21, 22));
    EXPECT_THAT(model.takeRereads(START + SECOND, 3), ElementsAre(23, 24));
}

TEST_F(ProcessModelTest, KeepsProcessesOfOneNumberApart) {
    const int64_t read = START + 10 * SECOND;
    snapshot(read, {Found(7, read)});
    // A fork and an exit that belong to what /proc told, and an exit of an earlier process.
    model.apply(Create(7, START + SECOND / 100));
    EXPECT_EQ(row(7).name, "found");
    model.apply(Exit(7, START - SECOND));
    EXPECT_EQ(row(7).name, "found");
    // The number is given to a new process, whose predecessor's exit was lost.
    model.apply(Create(7, read + SECOND));
    EXPECT_EQ(row(7).name, "parent");
    EXPECT_EQ(row(7).resident, 0);
    // /proc may tell of the predecessor late; its successor stays.
    model.applyReread(7, Found(7, read));
    snapshot(read, {Found(7, read)});
    EXPECT_EQ(row(7).name, "parent");
    model.apply(Exit(7, read + 2 * SECOND));
    EXPECT_EQ(row(7).pid, 0);
    model.apply(Exit(7, read + 2 * SECOND));
    EXPECT_EQ(model.view({}).totals.processes, 0U);
}

TEST_F(ProcessModelTest, ASnapshotNeitherBringsBackWhatEndedNorLosesWhatBegan) {
    const int64_t begin = START + 10 * SECOND;
    snapshot(begin - SECOND, {Found(6, begin - SECOND), Found(7, begin - SECOND)});
    model.beginSnapshot(begin);
    model.apply(Exit(7, begin + 1));
    model.apply(Create(8, begin + 1));
    ProcessSnapshot ending = Found(9, begin);
    ending.isEnding = true;
    ending.threads = 1;
    ProcessSnapshot withoutMainThread = Found(10, begin);
    withoutMainThread.isEnding = true;
    // 6 ended unseen, 7 was found before it ended, 8 began after its place was passed.
    model.finishSnapshot({Found(7, begin), ending, withoutMainThread});
    EXPECT_THAT(order({.sortKey = SortKey::PID}), ElementsAre(8, 10));
    EXPECT_THAT(model.takeRereads(begin + 2 * SECOND, 9), testing::UnorderedElementsAre(8, 10));
    model.applyReread(10, std::nullopt);
    EXPECT_THAT(order({.sortKey = SortKey::PID}), ElementsAre(8));
}

TEST_F(ProcessModelTest, WantsProcAgainWhenTheServiceHasJustBegun) {
    snapshot(START, {});
    EXPECT_FALSE(model.wantsSnapshot(START + 9 * SECOND));
    RawTesuTaskInitEvent init{};
    init.header = {RAW_EVENT_TASK_INIT, 0, START};
    model.apply(init);
    EXPECT_FALSE(model.wantsSnapshot(START));
    EXPECT_TRUE(model.wantsSnapshot(START + 2 * SECOND));
    snapshot(START + 2 * SECOND, {});
    EXPECT_FALSE(model.wantsSnapshot(START + 9 * SECOND));
}

TEST_F(ProcessModelTest, SortsFiltersAndScrolls) {
    const int64_t read = START + 10 * SECOND;
    std::vector<ProcessSnapshot> found;
    for (int32_t pid = 1; pid <= 6; ++pid) {
        found.push_back(Found(pid, read, pid % 2 == 0 ? "Even" : "odd"));
    }
    found[2].memory[MEMORY_SHMEM] = MIB;
    found[3].openFds.reset();
    found[4].threads = 9;
    found[5].isKernelThread = true;
    found[5].startTime = START - SECOND;
    snapshot(read, found);
    // Equal ones by number, whichever way round.
    EXPECT_THAT(order({}), ElementsAre(3, 1, 2, 4, 5, 6));
    EXPECT_THAT(order({.isReversed = true}), ElementsAre(1, 2, 4, 5, 6, 3));
    EXPECT_THAT(order({.sortKey = SortKey::THREADS}), ElementsAre(5, 1, 2, 3, 4, 6));
    EXPECT_THAT(order({.sortKey = SortKey::FDS}), ElementsAre(1, 2, 3, 5, 6, 4));
    EXPECT_THAT(order({.sortKey = SortKey::AGE, .isReversed = true}),
                ElementsAre(6, 1, 2, 3, 4, 5));
    EXPECT_THAT(order({.sortKey = SortKey::NAME}), ElementsAre(2, 4, 6, 1, 3, 5));
    EXPECT_THAT(order({.sortKey = SortKey::PID, .withKernelThreads = false, .filter = "eVE"}),
                ElementsAre(2, 4));
    EXPECT_THAT(order({.filter = "5"}), ElementsAre(5));
    EXPECT_THAT(order({.filter = "none"}), IsEmpty());

    const ProcessView end = model.view({.sortKey = SortKey::PID, .firstRow = 99, .rowLimit = 4});
    EXPECT_EQ(end.firstRow, 2U);
    EXPECT_EQ(end.matching, 6U);
    EXPECT_EQ(end.rows.front().pid, 3);
    EXPECT_THAT(end.rows, SizeIs(4));
    EXPECT_EQ(end.totals.processes, 5U);
    EXPECT_EQ(end.totals.kernelThreads, 1U);

    model.advanceTo(read + SECOND);
    model.apply(Rss(4, read + SECOND, MEMORY_ANON, 12 * MIB));
    model.apply(Rss(2, read + SECOND, MEMORY_ANON, 9 * MIB));
    EXPECT_THAT(order({.sortKey = SortKey::CHANGE}), ElementsAre(4, 1, 3, 5, 6, 2));
    EXPECT_EQ(row(2).change, -MIB);
}

TEST_F(ProcessModelTest, PointsOutThreadStormsCrashLoopsAndGrowth) {
    int64_t now = START + 10 * SECOND;
    ProcessSnapshot next = Found(8, now, "crashd");
    next.startTime = now + 15 * SECOND;
    snapshot(now, {Found(6, now, "calm"), Found(7, now, "busy"), next, Found(9, now, "crashd")});
    for (int i = 0; i < 20; ++i) {
        now += SECOND;
        model.advanceTo(now);
        for (int thread = 0; thread < 4; ++thread) {
            model.apply(Create(7, now + thread, RAW_TASK_THREAD));
            model.apply(Exit(7, now + thread, RAW_TASK_THREAD));
        }
        model.apply(Rss(7, now, MEMORY_FILE, i * MIB));
        model.apply(Create(100 + i, now));
        model.apply(Exit(100 + i, now + 3'000'000));
    }
    EXPECT_EQ(row(7).newThreads, 40);
    EXPECT_EQ(row(7).threads, 4);
    EXPECT_TRUE(row(7).isGrowing);
    EXPECT_EQ(row(7).change, 19 * MIB);
    EXPECT_EQ(row(6).newThreads, 0);
    EXPECT_FALSE(row(6).isGrowing);
    EXPECT_EQ(row(8).youngExits, 20U);
    EXPECT_EQ(row(9).youngExits, 0U);  // too old to be one of them
    ASSERT_THAT(model.view({}).loops, SizeIs(1));
    EXPECT_EQ(model.view({}).loops[0].name, "crashd");
    EXPECT_EQ(model.view({}).loops[0].lastLifetime, 3'000'000);
    EXPECT_NEAR(model.view({}).totals.forksPerSecond, 1, 0.01);
    EXPECT_NEAR(model.view({}).totals.recordsPerSecond, 11, 0.01);

    model.advanceTo(now + 70 * SECOND);
    EXPECT_EQ(row(7).newThreads, 0);
    EXPECT_FALSE(row(7).isGrowing);
    EXPECT_EQ(row(8).youngExits, 0U);
    EXPECT_THAT(model.view({}).loops, IsEmpty());
    EXPECT_EQ(model.view({}).totals.forksPerSecond, 1.0 / 70);
}

TEST(SampleHistory, KeepsTheLastMinuteAndFillsWhatNobodyLookedAt) {
    SampleHistory history;
    EXPECT_THAT(history.upTo(5), IsEmpty());
    history.record(5, 1);
    history.record(5, 2);
    history.record(8, 7);
    EXPECT_THAT(history.upTo(9), ElementsAre(2, 2, 2, 7, 7));
    EXPECT_EQ(history.rise(9, 1), 0);
    EXPECT_EQ(history.rise(9, 99), 5);
    // A second that comes late counts as the newest.
    history.record(6, 3);
    EXPECT_THAT(history.upTo(9), ElementsAre(2, 2, 2, 7, 3));
    history.record(1'000'000, 4);
    EXPECT_THAT(history.upTo(1'000'001), SizeIs(HISTORY_SAMPLES));
    EXPECT_EQ(history.rise(1'000'001, 99), 1);
}

TEST(SampleHistory, TellsGrowthFromAJumpAPlateauAndASaw) {
    constexpr uint32_t KIB_PER_MIB = 1024;
    std::vector<uint32_t> steps;
    std::vector<uint32_t> jump(40, KIB_PER_MIB);
    std::vector<uint32_t> saw;
    std::vector<uint32_t> slight;
    for (uint32_t i = 0; i < 40; ++i) {
        steps.push_back((10 + i / 4) * KIB_PER_MIB);
        saw.push_back((10 + i % 20) * KIB_PER_MIB);
        slight.push_back(1000 * KIB_PER_MIB + i * KIB_PER_MIB);
    }
    jump.back() = 100 * KIB_PER_MIB;
    saw.push_back(15 * KIB_PER_MIB);
    EXPECT_TRUE(IsGrowing(steps));
    EXPECT_FALSE(IsGrowing(jump));
    EXPECT_FALSE(IsGrowing(saw));
    EXPECT_FALSE(IsGrowing(slight));
    steps.insert(steps.end(), 10, steps.back());
    EXPECT_FALSE(IsGrowing(steps));
    EXPECT_FALSE(IsGrowing({}));
}

TEST(YoungExits, CountsWithinItsWindowAndStaysBounded) {
    YoungExits exits;
    exits.note("a", 1, 10);
    exits.note("a", 1, 20 * SECOND);
    EXPECT_EQ(exits.exitsOf("a", 20 * SECOND), 0U);  // no loop yet
    exits.note("a", YoungExits::YOUNG + 1, 20 * SECOND);
    exits.note("a", -1, 20 * SECOND);
    EXPECT_EQ(exits.exitsOf("a", 20 * SECOND), 0U);
    exits.note("a", 5, 40 * SECOND);
    exits.note("a", 6, 39 * SECOND);
    EXPECT_EQ(exits.exitsOf("a", 41 * SECOND), 4U);
    EXPECT_EQ(exits.exitsOf("a", 75 * SECOND), 3U);
    EXPECT_EQ(exits.exitsOf("a", 85 * SECOND), 0U);
    // Any number of names; the loop among them is kept.
    for (int i = 0; i < 3; ++i) {
        exits.note("loop", 1, 90 * SECOND);
    }
    for (int i = 0; i < 10000; ++i) {
        exits.note("name" + std::to_string(i), 1, 91 * SECOND);
    }
    EXPECT_EQ(exits.exitsOf("loop", 91 * SECOND), 3U);
}

TEST(ProcSnapshot, ReadsStatWhateverTheName) {
    const std::string rest =
        " S 12 7 7 0 -1 4194560 1 2 3 4 5 6 7 8 20 0 33 0 12345 99 88 rest of it\n";
    for (const std::string name :
         {"bash", "a b", "x) S 1 (y", "line\nend", "", ")", "(", "sixteen-letters!"}) {
        ProcessSnapshot process;
        uint64_t ticks = 0;
        std::string text = "4711 (";
        text.append(name).append(")").append(rest);
        ASSERT_TRUE(ParseProcStat(text, &process, &ticks)) << name;
        EXPECT_EQ(process.name, name);
        EXPECT_EQ(process.pid, 4711);
        EXPECT_EQ(process.ppid, 12);
        EXPECT_EQ(process.threads, 33);
        EXPECT_EQ(ticks, 12345U);
        EXPECT_FALSE(process.isEnding);
        EXPECT_FALSE(process.isKernelThread);
    }
    const std::string whole = "4711 (bash)" + rest;
    for (size_t size = 0; size < whole.find("12345"); ++size) {
        ProcessSnapshot process;
        uint64_t ticks = 0;
        EXPECT_FALSE(ParseProcStat(whole.substr(0, size), &process, &ticks)) << size;
    }
}

TEST(ProcSnapshot, ReadsStatusAndTakesNoNonsense) {
    ProcessSnapshot process;
    ParseProcStatus(
        "Name:\tRssAnon:\\n1 kB\nUid:\t1000\t0\t0\t0\nRssAnon:\t    2048 kB\nRssFile:\t1 kB\n"
        "RssShmem:\t-5 kB\nVmSwap:\t99999999999999999999 kB\nRssAnonymous:\t7 kB\nRssAnon",
        &process);
    EXPECT_EQ(process.uid, 1000);
    EXPECT_THAT(process.memory, ElementsAre(1024, 2048 * 1024, 0, 0));
}

class FakeProc : public testing::Test {
  protected:
    FakeProc() {
        char path[] = "/tmp/tesubpf.proc.XXXXXX";
        root = mkdtemp(path);
    }
    ~FakeProc() override { std::filesystem::remove_all(root); }

    void write(const std::string& file, const std::string& text) const {
        std::filesystem::create_directories((root / file).parent_path());
        std::ofstream(root / file) << text;
    }

    std::filesystem::path root;
};

TEST_F(FakeProc, FindsWhatIsWholeAndSkipsTheRest) {
    const std::string rest = ") Z 1 7 7 0 -1 4 1 2 3 4 5 6 7 8 20 0 2 0 12345 99 88\n";
    write("20/stat", "20 (a b" + rest);
    write("20/status", "Uid:\t5\nRssAnon:\t4 kB\n");
    write("20/fd/0", "");
    write("20/fd/7", "");
    write("21/stat", "");              // ended since it was listed
    write("22/stat", "23 (x" + rest);  // another's
    write("24/status", "Uid:\t5\n");
    write("self/stat", "20 (a b" + rest);
    write("99999999999/stat", "1 (a" + rest);
    write("stat", "cpu 1 2 3");
    write("25/stat", "25 (kthread) S 2 0 0 0 -1 2129984 1 2 3 4 5 6 7 8 20 0 1 0 5 0\n");
    ProcReader reader(root);
    std::vector<ProcessSnapshot> found;
    ASSERT_TRUE(reader.readAll(&found));
    ASSERT_THAT(found, SizeIs(2));
    const ProcessSnapshot& process = found[found[0].pid == 20 ? 0 : 1];
    EXPECT_EQ(process.name, "a b");
    EXPECT_EQ(process.memory[MEMORY_ANON], 4096);
    EXPECT_TRUE(process.isEnding);
    EXPECT_TRUE(process.openFds.has_value());
    EXPECT_TRUE(found[found[0].pid == 25 ? 0 : 1].isKernelThread);
    EXPECT_FALSE(ProcReader(root / "none").readAll(&found));
}

TEST_F(FakeProc, ReadsThisProcessFromTheRealOne) {
    if (!EmulatorCommand().empty()) {
        GTEST_SKIP() << "the emulator makes its own /proc/self/stat, without threads";
    }
    const std::optional<ProcessSnapshot> self = ProcReader().read(getpid());
    ASSERT_TRUE(self.has_value());
    EXPECT_EQ(self->ppid, getppid());
    EXPECT_EQ(self->threads, 1);
    EXPECT_EQ(self->uid, static_cast<int32_t>(getuid()));
    EXPECT_GT(self->memory[MEMORY_ANON], 0);
    EXPECT_GE(self->openFds.value_or(0), 3);
    EXPECT_LT(self->startTime, self->readTime);
    EXPECT_GT(self->startTime, self->readTime - 300 * SECOND);
}

}  // namespace
}  // namespace Tesu::Bpf
