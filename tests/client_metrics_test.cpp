// SPDX-License-Identifier: Apache-2.0
//
// `tesubpf metrics`: what it says of events and processes, and that it may be asked at any time.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <prometheus/text_serializer.h>

#include <csignal>
#include <string>
#include <thread>

#include "client/metrics/fleet_metrics.h"
#include "tests/support/child_process.h"
#include "tests/support/fake_service.h"
#include "tests/support/records.h"
#include "tests/support/temp_dir.h"
#include "util/monotonic_clock.h"

namespace Tesu::Bpf {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

constexpr int64_t BEGIN_TIME = 100 * NANOSECONDS_PER_SECOND;

ProcessSnapshot Found(int32_t pid, const std::string& name, bool isKernelThread = false) {
    ProcessSnapshot process{.pid = pid, .ppid = 1, .name = name, .threads = 2, .openFds = 4};
    process.isKernelThread = isKernelThread;
    process.memory = {5, 70, 0, 9};
    process.startTime = BEGIN_TIME;
    process.readTime = BEGIN_TIME + NANOSECONDS_PER_SECOND;
    return process;
}

class FleetMetricsTest : public testing::Test {
  protected:
    void news(uint32_t kind) {
        metrics.take({kind, 0, 0, 0, BEGIN_TIME, nullptr, ""}, nullptr, model);
    }
    template <class Record>
    void record(const Record& record) {
        const Event event = record;
        metrics.take({TESUBPF_RECORD, record.header.type, 0, 0, record.header.time, nullptr, ""},
                     &event, model);
        model.apply(event);
    }
    std::string textAt(int64_t now) {
        metrics.survey(model, now);
        return prometheus::TextSerializer().Serialize(metrics.families());
    }

    ProcessModel model;
    FleetMetrics metrics{NamedFigures(3, {"a*", "odd*", "late"})};
};

TEST_F(FleetMetricsTest, SaysNothingOfWhatIsNotKnown) {
    const auto isSilent =
        AllOf(HasSubstr("\ntesubpf_up 0\n"), Not(HasSubstr("\ntesubpf_processes ")),
              Not(HasSubstr("_processes{name=")), Not(HasSubstr("ring=")));
    model.mergeProc(BEGIN_TIME, {Found(7, "a")});
    EXPECT_THAT(textAt(BEGIN_TIME), isSilent);
    news(TESUBPF_CONNECTED);
    news(TESUBPF_SUBSCRIBED);
    StatusReport report;
    report.rings = {{STATUS_RING, 0, RING_MONITOR_RUNNING, 0, 4096, 0, 0, 0},
                    {STATUS_RING, 1, RING_MONITOR_NOT_STARTED, 0, 0, 0, 0, 0}};
    metrics.takeStatus(report);
    EXPECT_THAT(textAt(BEGIN_TIME), Not(HasSubstr("gpl")));
    model.apply(RawFdUpdateEvent{
        Header(RAW_EVENT_FD_UPDATE, BEGIN_TIME + 2 * NANOSECONDS_PER_SECOND), 7, 0, 12, 0, ""});
    record(RecordsLostNotification{{NOTIFICATION_RECORDS_LOST, 0, BEGIN_TIME}, 1, 0, 2, 30});
    EXPECT_THAT(textAt(BEGIN_TIME),
                AllOf(HasSubstr("\ntesubpf_up 1\n"), HasSubstr("total{ring=\"core\"} 0\n"),
                      HasSubstr("total{ring=\"gpl\"} 30\n"), HasSubstr("\ntesubpf_processes 1\n"),
                      HasSubstr("_open_fds{name=\"a\"} 12\n")));
    // The descriptors of one of them are not readable.
    ProcessSnapshot closed = Found(8, "a");
    closed.openFds.reset();
    model.mergeProc(BEGIN_TIME, {Found(7, "a"), closed});
    EXPECT_THAT(textAt(BEGIN_TIME), Not(HasSubstr("_open_fds{name=\"a\"}")));
    news(TESUBPF_LOST);
    EXPECT_THAT(textAt(BEGIN_TIME), isSilent);
}

TEST_F(FleetMetricsTest, KeepsNamesWithinTheirBound) {
    news(TESUBPF_SUBSCRIBED);
    // Two that are the same in valid UTF-8, one in the kernel's name, one that nobody wants.
    model.mergeProc(BEGIN_TIME,
                    {Found(2, "kthreadd", true), Found(7, "odd\xff\"\n"), Found(8, "odd\xfe\"\n"),
                     Found(9, "[kernel]"), Found(10, "cc1plus"), Found(11, "a")});
    textAt(BEGIN_TIME);
    record(Exit(BEGIN_TIME + 10 * NANOSECONDS_PER_SECOND, 11, "a1"));
    record(Create(BEGIN_TIME + 20 * NANOSECONDS_PER_SECOND, 1, 12, "shell"));
    record(Exit(BEGIN_TIME + 31 * NANOSECONDS_PER_SECOND, 12, "a1"));
    for (int i = 0; i < 10; ++i) {
        record(
            Exit(BEGIN_TIME + 40 * NANOSECONDS_PER_SECOND, 100 + i, "a2" + std::to_string(i % 5)));
    }
    const std::string odd = "{name=\"odd\xef\xbf\xbd\\\"\\n\"";
    EXPECT_THAT(textAt(BEGIN_TIME + 40 * NANOSECONDS_PER_SECOND),
                AllOf(HasSubstr("_processes" + odd + "} 2\n"),
                      HasSubstr("_bytes" + odd + ",kind=\"anon\"} 140\n"),
                      HasSubstr("largest_resident_memory_bytes" + odd + "} 84\n"),
                      HasSubstr("\ntesubpf_name_processes{name=\"[kernel]\"} 1\n"),
                      HasSubstr("\ntesubpf_kernel_threads 1\n"),
                      HasSubstr("\ntesubpf_name_processes{name=\"other\"} 2\n"),
                      HasSubstr("\ntesubpf_processes 4\n"),
                      HasSubstr("\ntesubpf_name_process_exits_total{name=\"a1\"} 2\n"),
                      HasSubstr("\ntesubpf_name_young_exits_total{name=\"a1\"} 1\n"),
                      HasSubstr("\ntesubpf_name_process_exits_total{name=\"other\"} 10\n"),
                      HasSubstr("\ntesubpf_names_dropped_total 5\n")));
    // A name without processes is 0 for a while, and gives up its place.
    EXPECT_THAT(textAt(BEGIN_TIME + 600 * NANOSECONDS_PER_SECOND),
                HasSubstr("_processes{name=\"a1\"} 0\n"));
    EXPECT_THAT(textAt(BEGIN_TIME + 650 * NANOSECONDS_PER_SECOND),
                AllOf(Not(HasSubstr("\"a1\"")), HasSubstr("_processes" + odd + "} 2\n")));
    record(Exit(BEGIN_TIME + 650 * NANOSECONDS_PER_SECOND, 5, "late"));
    EXPECT_THAT(textAt(BEGIN_TIME + 650 * NANOSECONDS_PER_SECOND),
                HasSubstr("_exits_total{name=\"late\"} 1\n"));
}

std::string Scrape(int port) {
    return OutputOf({"/bin/bash", "-c",
                     "exec 3<>/dev/tcp/127.0.0.1/" + std::to_string(port) +
                         "; printf 'GET /metrics HTTP/1.0\\r\\n\\r\\n' >&3; cat <&3"});
}

TEST(MetricsTest, MayBeAskedWhileEventsCome) {
    const std::string name = FakeService::uniqueName();
    FakeService service(name);
    ChildProcess metrics(
        {TESUBPF_PATH, "metrics", "--socket", name, "--listen", "127.0.0.1:0", "--name", "late*"});
    ASSERT_TRUE(metrics.waitForError("/metrics\n")) << metrics.error;
    const std::string address = "serving http://127.0.0.1:";
    const size_t at = metrics.error.find(address);
    const int port = std::stoi(metrics.error.substr(at + address.size()));
    service.acceptClient(std::size(LiveProcesses::TYPES));
    std::jthread flood([&service] {
        for (int i = 0; i < 2000; ++i) {
            service.sendEvent(
                Bytes(Exit(BEGIN_TIME + i, 1 << 24, "late" + std::to_string(i % 20))));
        }
    });
    EXPECT_TRUE(WaitUntil([&] {
        return Scrape(port).find("_exits_total{name=\"late19\"} 100\n") != std::string::npos;
    })) << metrics.error;
    metrics.sendSignal(SIGTERM);
    EXPECT_EQ(metrics.waitForExit(), 0) << metrics.error;
}

TEST(MetricsTest, LeavesNoFileOfOldFigures) {
    const TempDir temp;
    const std::string file = temp.path("tesubpf.prom");
    ChildProcess metrics(
        {TESUBPF_PATH, "metrics", "--socket", FakeService::uniqueName(), "--textfile", file});
    ASSERT_TRUE(WaitUntil([&] { return !ReadWholeFile(file).empty(); })) << metrics.error;
    EXPECT_THAT(ReadWholeFile(file), testing::EndsWith("\ntesubpf_names_dropped_total 0\n"));
    metrics.sendSignal(SIGTERM);
    EXPECT_EQ(metrics.waitForExit(), 0) << metrics.error;
    EXPECT_TRUE(std::filesystem::is_empty(temp.path()));
}

}  // namespace
}  // namespace Tesu::Bpf
