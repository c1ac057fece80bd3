// SPDX-License-Identifier: Apache-2.0
//
// The scans of /proc, over a tree of files and over the real one.
#include "task/task_scan.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <limits>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "diag/tesu_bpf_state.h"
#include "proc/proc_text.h"
#include "service/tesu_bpf_service.h"
#include "task/map_seeding.h"
#include "task/tesu_bpf_task_manager.h"
#include "tests/support/event_capture.h"
#include "tests/support/temp_dir.h"
#include "util/time_util.h"

namespace Tesu::Bpf {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Key;
using testing::Pair;
using testing::UnorderedElementsAre;

constexpr const char* STATUS =
    "Name:\tsystem_server\n"
    "Tgid:\t10\n"
    "PPid:\t7\n"
    "TracerPid:\t0\n"
    "Uid:\t1000\t1001\t1002\t1003\n"
    "VmRSS:\t     999 kB\n"
    "RssAnon:\t      20 kB\n"
    "RssFile:\t      30 kB\n"
    "RssShmem:\t      40 kB\n"
    "VmSwap:\t      12 kB\n"
    "Threads:\t5\n";

std::string StatLine(const std::string& comm) {
    return "10 (" + comm +
           ") S 7 10 10 0 -1 4194560 1 2 3 4 5 6 7 8 20 0 17 0 12300 1 2 3 4 5 6 7 8 9\n";
}

TEST(ProcText, Numbers) {
    EXPECT_EQ(ParseNumber(" \t -42 kB"), -42);
    EXPECT_EQ(ParseNumber("7f00", 16), 0x7f00);
    for (const char* text : {"", "  ", "-", "kB 3"}) {
        EXPECT_EQ(ParseNumber(text), 0) << text;
    }
    EXPECT_EQ(ParseNumber("99999999999999999999"), std::numeric_limits<int64_t>::max());
    EXPECT_EQ(ParseNumber("-99999999999999999999"), std::numeric_limits<int64_t>::min());
}

TEST(ProcText, OddStatus) {
    EXPECT_STREQ(ParseProcStatus("Name:\ttwenty characters ab\n").comm, "twenty characte");
    EXPECT_STREQ(ParseProcStatus("Name:\tx\\ny) (c").comm, "x\\ny) (c") << "no newline at the end";
    const ProcStatus sly = ParseProcStatus("\nPPid:\nName:\tPPid:\t9\nPPid:\t3\nVmSwap:\tkB\n");
    EXPECT_STREQ(sly.comm, "PPid:\t9");
    EXPECT_EQ(sly.ppid, 3);
    EXPECT_EQ(ParseProcStatus("VmSwap:\t9223372036854775807 kB\n").rss[RSS_SWAP], -1024) << "wraps";
}

TEST(ProcText, StatFieldsAreCountedByBlanks) {
    EXPECT_EQ(ParseProcStatAtBlanks(StatLine("name"))->threadNum, 17);
    EXPECT_EQ(ParseProcStatAtBlanks(StatLine("name"))->startTicks, 12300);
    EXPECT_EQ(ParseProcStatAtBlanks(StatLine("(a) )("))->startTicks, 0)
        << "a blank shifts the fields";
    EXPECT_FALSE(ParseProcStatAtBlanks(StatLine("x\ny")).has_value())
        << "only the first line counts";
    EXPECT_FALSE(
        ParseProcStatAtBlanks("1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19 20 21").has_value());
}

TEST(ProcText, DmabufMappingsHaveSixFieldsAndTheirPath) {
    const auto mapping =
        ParseDmabufMapping("7f000000-7f001000 rw-s 00000000 00:0a 4242       /dmabuf:gpu");
    ASSERT_TRUE(mapping.has_value());
    EXPECT_EQ(mapping->inode, 4242U);
    EXPECT_EQ(mapping->size, 4096);
    EXPECT_EQ(ParseDmabufMapping("0-1 rw-s 0 00:0a 18446744073709551615 /x/dmabuf")->inode,
              UINT64_MAX);
    EXPECT_EQ(ParseDmabufMapping("x-y rw-s 0 00:0a z /dmabuf:")->size, 0);
    for (const char* line : {
             "7f000000-7f001000 rw-s 00000000 00:0a 4242 /dmabuf:my gpu",
             "7f000000-7f001000 rw-s 00000000 /dmabuf 4242 /dev/ashmem",
             "7f000000 rw-s 00000000 00:0a 4242 /dmabuf:gpu",
             "1-2-3 rw-s 00000000 00:0a 4242 /dmabuf:gpu",
             "/dmabuf",
         }) {
        EXPECT_FALSE(ParseDmabufMapping(line).has_value()) << line;
    }
}

class ScanTest : public testing::Test {
  protected:
    void addProcess(const std::string& pid, const std::string& status = STATUS,
                    const std::string& stat = StatLine("name")) {
        proc.write(pid + "/status", status);
        proc.write(pid + "/stat", stat);
    }
    TempDir proc;
};

TEST_F(ScanTest, TaskRecordsOfProcessesThatLive) {
    addProcess("10");
    addProcess("11", "Name:\tbare\n", "11 (bare) S 1\n");
    addProcess("self");
    addProcess("12a");
    proc.makeFolder("13");
    proc.write("14/status", STATUS);
    addProcess("15", "");
    proc.makeFolder("16/status");  // opens, but cannot be read
    proc.write("17/status", STATUS);
    proc.makeFolder("17/stat");
    addProcess("18", "Name:\tdead\nState:\tZ (zombie)\nThreads:\t1\n");
    addProcess("19", "Name:\tleader\nState:\tZ (zombie)\nThreads:\t2\n");

    std::map<int32_t, RawTesuTaskInitEvent> records;
    EXPECT_EQ(ScanTasks(proc.path(),
                        [&](RawTesuTaskInitEvent& record) {
                            records[record.pid] = record;
                            return true;
                        }),
              4);
    ASSERT_THAT(records, ElementsAre(Key(10), Key(11), Key(15), Key(19)));
    const RawTesuTaskInitEvent& whole = records.at(10);
    EXPECT_EQ(whole.header.type, 0U);
    EXPECT_NE(whole.header.time, 0);
    EXPECT_STREQ(whole.comm, "system_server");
    EXPECT_THAT((std::vector<int64_t>{whole.ppid, whole.uid, whole.threadNum, whole.rssFileSize,
                                      whole.rssAnonSize, whole.rssShmemSize, whole.rssSwapSize}),
                ElementsAre(7, 1000, 17, 30720, 20480, 40960, 12288));
    EXPECT_EQ(whole.startTime, GetBasetime() + 12300 / sysconf(_SC_CLK_TCK));
    EXPECT_STREQ(records.at(11).comm, "bare");
    EXPECT_EQ(records.at(11).threadNum + records.at(11).startTime + records.at(11).ppid, 0);

    EXPECT_EQ(ScanTasks(proc.path(), [](RawTesuTaskInitEvent&) { return false; }), 1);
    EXPECT_EQ(ScanTasks(proc.path("absent"), [](RawTesuTaskInitEvent&) { return true; }), 0);
}

TEST_F(ScanTest, OpenDescriptorsPerProcess) {
    addProcess("10");
    for (const char* fd : {"0", "1", "2", "255", ".hidden"}) {
        proc.write(std::string("10/fd/") + fd, "");
    }
    addProcess("11");
    proc.makeFolder("11/fd");
    addProcess("12");
    proc.makeFolder("13/fd");

    std::map<uint32_t, OpenFdCaller> callers;
    const auto take = [&](const OpenFdCaller& caller) { callers[caller.pid] = caller; };
    ScanOpenFds(
        proc.path(), [] { return false; }, take);
    EXPECT_THAT(callers, IsEmpty());
    ScanOpenFds(
        proc.path(), [] { return true; }, take);
    ASSERT_THAT(callers, ElementsAre(Key(10), Key(11)));
    EXPECT_EQ(callers.at(10).openFds, 4U);
    EXPECT_EQ(callers.at(10).reportedFds, 4U);
    EXPECT_STREQ(callers.at(10).comm, "system_server");
    EXPECT_EQ(callers.at(11).openFds, 0U);
}

TEST_F(ScanTest, DmabufMappingsAndTotals) {
    const std::string other = "5581-5582 r--p 00000000 fe:00 99 /bin/dmabuf user\n";
    std::string many;  // longer than one read
    while (many.size() < 300000) {
        many += other;
    }
    proc.write("10/maps", many +
                              "1000-2000 rw-s 0 00:0a 1 /dmabuf:\n"
                              "4000-7000 rw-s 0 00:0a 2   /dmabuf:gpu\n"
                              "8000-9000 rw-s 0 00:0a 2   /dmabuf:gpu");
    proc.write("11/maps", "");
    proc.write("12/maps", "1000-2000 rw-s 0 00:0a 3 /dmabuf:\n2000-1000 rw-s 0 00:0a 3 /dmabuf:\n");
    proc.makeFolder("13");

    std::vector<std::vector<int64_t>> mappings;
    std::map<int32_t, int64_t> totals;
    const DmabufSink sink{
        .takeMapping =
            [&](uint64_t inode, const DmabufAllocation& allocation) {
                mappings.push_back({static_cast<int64_t>(inode), allocation.pid, allocation.size});
            },
        .takeTotal = [&](int32_t pid, int64_t total) { totals[pid] = total; }};
    ScanDmabufs(
        proc.path(), [] { return false; }, sink);
    EXPECT_THAT(mappings, IsEmpty());
    ScanDmabufs(
        proc.path(), [] { return true; }, sink);
    EXPECT_THAT(mappings,
                UnorderedElementsAre(ElementsAre(1, 10, 0x1000), ElementsAre(2, 10, 0x3000),
                                     ElementsAre(2, 10, 0x1000), ElementsAre(3, 12, 0x1000),
                                     ElementsAre(3, 12, -0x1000)));
    EXPECT_THAT(totals, ElementsAre(Pair(10, 0x5000))) << "a total of 0 is none";
}

TEST(RealScan, EveryProcessIsForwardedKeptAndCountedTwice) {
    prctl(PR_SET_NAME, "a scan (x) y");
    TesuBpfService* service = TesuBpfService::GetInstance();
    EventCapture client{0};
    EXPECT_EQ(service->initTaskInfo(), 0);
    const std::vector<std::string> records = client.take();
    TesuTaskManager* manager = TesuTaskManager::GetInstance();
    EXPECT_EQ(records.size(), manager->GetTesuTaskCount());
    const TesuTask* self = manager->GetTesuTask(getpid());
    ASSERT_NE(self, nullptr);
    EXPECT_STREQ(self->comm, "a scan (x) y");
    EXPECT_EQ(self->ppid, getppid());
    EXPECT_EQ(self->uid, static_cast<int32_t>(getuid()));
    EXPECT_GT(self->rssAnonSize, 0);
    EXPECT_NE(manager->GetTesuTask(getppid()), nullptr);

    TesuBpfDataState::GetInstance()->DumpState();
    std::istringstream csv(ReadWholeFile(TesuBpfDataState::TESUTASK_DUMP_TEMPLATE));
    std::string line;
    std::getline(csv, line);
    size_t counted = 0;
    while (std::getline(csv, line)) {
        counted += std::stoul(line.substr(line.find(", ") + 2));
    }
    EXPECT_EQ(counted, 2 * records.size());
}

TEST(RealScan, EndsWithTheService) {
    TesuBpfService* service = TesuBpfService::GetInstance();
    service->stop();
    EventCapture client{0};
    EXPECT_EQ(service->initTaskInfo(), 0);
    EXPECT_EQ(client.take().size(), 1U);
}

}  // namespace
}  // namespace Tesu::Bpf
