// SPDX-License-Identifier: Apache-2.0
//
// From an event's bytes to a line of text or JSON.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <nlohmann/json.hpp>
#include <string>
#include <variant>
#include <vector>

#include "client/event_decoder.h"
#include "client/event_json.h"
#include "client/event_names.h"
#include "client/event_text.h"
#include "client/text/terminal_text.h"
#include "client/text/units.h"

namespace Tesu::Bpf {
namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;

template <class T>
std::string Bytes(const T& record) {
    return {reinterpret_cast<const char*>(&record), sizeof(record)};
}

// From an odd address, and with nothing behind it.
Event Decode(const std::string& bytes) {
    std::vector<char> unaligned(bytes.size() + 1);
    std::memcpy(unaligned.data() + 1, bytes.data(), bytes.size());
    return DecodeEvent(unaligned.data() + 1, static_cast<uint32_t>(bytes.size()));
}

std::string Text(const Event& event, int64_t receivedTime = 0) {
    std::string line;
    TextFormatter(false).append(event, receivedTime, &line);
    return line;
}

template <size_t N>
void SetName(char (&field)[N], const std::string& name) {
    std::memset(field, 0, N);
    std::memcpy(field, name.data(), std::min(N, name.size()));
}

RawTaskCreateEvent Create(const std::string& name, int32_t pid = 4321,
                          int32_t taskType = RAW_TASK_PROCESS) {
    RawTaskCreateEvent record{};
    record.header = {RAW_EVENT_TASK_CREATE, 0, 5'210'123'456'789};
    record.ppid = 1200;
    record.pid = pid;
    record.uid = 1000;
    SetName(record.comm, name);
    record.taskType = taskType;
    return record;
}

RawTaskExitEvent Exit(int64_t time, int32_t pid = 4321, int32_t taskType = RAW_TASK_PROCESS) {
    RawTaskExitEvent record{};
    record.header = {RAW_EVENT_TASK_EXIT, 0, time};
    record.pid = pid;
    SetName(record.comm, "crashd");
    record.taskType = taskType;
    return record;
}

TEST(EventDecoder, ReadsWhatAShortRecordCoversAndIgnoresWhatALongOneAdds) {
    const std::string whole = Bytes(Create("crashd"));
    for (size_t size = 4; size <= whole.size(); ++size) {
        const Event event = Decode(whole.substr(0, size));
        ASSERT_TRUE(std::holds_alternative<RawTaskCreateEvent>(event)) << size;
        std::string expected = whole.substr(0, size);
        expected.resize(whole.size(), '\0');
        EXPECT_EQ(Bytes(std::get<RawTaskCreateEvent>(event)), expected) << size;
    }
    EXPECT_EQ(Bytes(std::get<RawTaskCreateEvent>(Decode(whole + "more than is known"))), whole);
}

TEST(EventDecoder, KeepsWhatItDoesNotKnow) {
    EXPECT_FALSE(std::get<UnknownEvent>(Decode("")).type.has_value());
    EXPECT_EQ(std::get<UnknownEvent>(Decode("abc")).size, 3U);
    const std::string future = std::string("\x07\0\0\0", 4) + std::string(1000, 'z');
    const auto event = std::get<UnknownEvent>(Decode(future));
    EXPECT_EQ(event.type, 7U);
    EXPECT_EQ(event.size, 1004U);
    EXPECT_EQ(event.start, future.substr(0, UnknownEvent::MAX_START));
    EXPECT_THAT(Text(event), HasSubstr("type 7, 1004 bytes: 07 00 00 00 7a"));
    EXPECT_EQ(nlohmann::json::parse(FormatEventJson(event, 5))["type"], 7);
}

TEST(EventText, ShowsTheFieldsOfEachEvent) {
    EXPECT_EQ(Text(Create("bash")),
              "   5210.123456  fork        4321  bash              parent 1200 uid 1000\n");
    EXPECT_EQ(Text(Create("bash", 4321, RAW_TASK_THREAD)),
              "   5210.123456  thread+     4321  bash              uid 1000\n");
    EXPECT_EQ(Text(Exit(0, 1, RAW_TASK_THREAD)), "      0.000000  thread-        1  crashd\n");
    EXPECT_EQ(Text(RawRssStatEvent{{RAW_EVENT_RSS_STAT, 0, 1'500'000'000}, 77, 1, 20 << 20}),
              "      1.500000  rss           77  -                 anon 20.0 MiB\n");

    MemoryNotification memory{};
    memory.type = NOTIFICATION_MEMORY;
    memory.pid = 815;
    memory.ppid = 1;
    SetName(memory.comm, "media");
    memory.rssAnonSize = 6 << 20;
    memory.rssAnonOldSize = 2 << 20;
    // What stands still is only in the total; a size may be nonsense.
    memory.rssFileSize = memory.rssFileOldSize = 512 << 10;
    memory.rssSwapSize = -(1 << 20);
    EXPECT_EQ(Text(memory, 2'000'000'001),
              "~     2.000000  memory       815  media             +3.0 MiB to 5.5 MiB: "
              "anon 2.0 MiB -> 6.0 MiB swap 0 B -> -1.0 MiB parent 1 uid 0\n");

    EXPECT_EQ(Text(ThreadCountNotification{NOTIFICATION_THREAD_COUNT, 815, 1, 0, 20, 9}),
              "~     0.000000  threads      815  -                 20 -> 9 (-11) parent 1 uid 0\n");
}

TEST(EventText, TellsHowLongAProcessLived) {
    TextFormatter formatter(false);
    std::string out;
    const RawTaskCreateEvent fork = Create("bash");
    formatter.append(fork, 0, &out);
    // A thread of the process, and another process, do not count.
    formatter.append(Create("bash", 4321, RAW_TASK_THREAD), 0, &out);
    formatter.append(Exit(fork.header.time + 1000, 4321, RAW_TASK_THREAD), 0, &out);
    formatter.append(Exit(fork.header.time + 1000, 4322), 0, &out);
    EXPECT_THAT(out, Not(HasSubstr("after")));
    formatter.append(Exit(fork.header.time + 3'200'000), 0, &out);
    EXPECT_THAT(out, EndsWith("crashd            after 3.2 ms\n"));

    formatter.append(fork, 0, &out);
    formatter.forgetProcesses();
    out.clear();
    formatter.append(Exit(fork.header.time + 1), 0, &out);
    EXPECT_THAT(out, Not(HasSubstr("after")));
}

TEST(EventText, LetsNothingOfANameActOnTheTerminal) {
    // 16 characters leave no room for a NUL; what follows the name is not part of it.
    EXPECT_THAT(Text(Create("sixteen-letters!")), HasSubstr("  sixteen-letters!  parent 1200"));
    EXPECT_THAT(Text(Create("a\x1b[2J\n\tb")), HasSubstr("  a\\x1b[2J\\x0a\\x09b"));
    EXPECT_THAT(Text(Create("\xff\xc3")), HasSubstr("  \\xff\\xc3 "));
    EXPECT_EQ(EscapeForTerminal("gr\xc3\xbc\xc3\x9f \xe2\x82\xac \xf0\x9f\x9a\x80"),
              "gr\xc3\xbc\xc3\x9f \xe2\x82\xac \xf0\x9f\x9a\x80");
    // C1 controls, overlong forms, surrogates, a direction override and a backslash.
    EXPECT_EQ(EscapeForTerminal("\xc2\x9b"), "\\xc2\\x9b");
    EXPECT_EQ(EscapeForTerminal("\xc0\x9b"), "\\xc0\\x9b");
    EXPECT_EQ(EscapeForTerminal("\xe0\x80\x9b"), "\\xe0\\x80\\x9b");
    EXPECT_EQ(EscapeForTerminal("\xed\xa0\x80"), "\\xed\\xa0\\x80");
    EXPECT_EQ(EscapeForTerminal("\xe2\x80\xae"), "\\xe2\\x80\\xae");
    EXPECT_EQ(EscapeForTerminal("\\x1b"), "\\\\x1b");
    EXPECT_EQ(EscapeForTerminal(std::string("a\0b", 3)), "a\\x00b");

    // Names of several bytes per character keep the columns.
    EXPECT_THAT(Text(Create("gr\xc3\xbc")), HasSubstr("  gr\xc3\xbc               parent"));

    std::string coloured;
    TextFormatter(true).append(Create("\x1b[31m"), 0, &coloured);
    EXPECT_THAT(coloured, AllOf(HasSubstr("\x1b[32mfork    \x1b[0m"), HasSubstr("\\x1b[31m")));
}

TEST(EventText, WritesSizesAndDurationsInUnits) {
    EXPECT_EQ(FormatBytes(0), "0 B");
    EXPECT_EQ(FormatBytes(1023), "1023 B");
    EXPECT_EQ(FormatBytes(4096), "4.0 KiB");
    EXPECT_EQ(FormatBytes((1 << 20) - 1), "1.0 MiB");
    EXPECT_EQ(FormatBytes(-(3LL << 30)), "-3.0 GiB");
    EXPECT_EQ(FormatBytes(INT64_MIN), "-8388608.0 TiB");
    EXPECT_EQ(FormatDuration(830'000), "830 us");
    EXPECT_EQ(FormatDuration(1'250'000'000), "1.25 s");
    EXPECT_EQ(FormatDuration(61'000'000'000), "1 m 01 s");
    EXPECT_EQ(FormatDuration(7'500'000'000'000), "2 h 05 m");
}

TEST(EventJson, GivesEveryFieldWithItsUnit) {
    const nlohmann::json create = nlohmann::json::parse(FormatEventJson(Create("bash"), 9));
    EXPECT_EQ(create, nlohmann::json({{"event", "task-create"},
                                      {"type", 2},
                                      {"time_ns", 5'210'123'456'789},
                                      {"pid", 4321},
                                      {"ppid", 1200},
                                      {"uid", 1000},
                                      {"comm", "bash"},
                                      {"task_type", 1},
                                      {"task_type_name", "process"}}));

    RawTesuTaskInitEvent init{{RAW_EVENT_TASK_INIT, 0, 1}, 2, 3, 4, 5, "name", 6, 7, 8, 9, 10};
    EXPECT_EQ(FormatEventJson(init, 0),
              R"({"event":"task-init","type":0,"time_ns":1,"pid":2,"ppid":3,"uid":4,"threads":5,)"
              R"("comm":"name","rss_file_bytes":6,"rss_anon_bytes":7,"rss_shmem_bytes":8,)"
              R"("swap_bytes":9,"start_time_s":10})");

    const ThreadCountNotification threads{NOTIFICATION_THREAD_COUNT, 1, 2, 3, 4, 15};
    EXPECT_EQ(FormatEventJson(threads, 99),
              R"({"event":"thread-count-change","type":50003,"received_ns":99,"pid":1,"ppid":2,)"
              R"("uid":3,"threads":15,"old_threads":4})");
}

TEST(EventJson, IsOneAsciiLineWhateverTheName) {
    for (const std::string name : {"a\nb\x1b\x7f", "\xff\xfe", "\xc2\x9b", "\"\\",
                                   "\xf0\x9f\x9a\x80", "0123456789abcde\xc3"}) {
        const std::string line = FormatEventJson(Create(name), 0);
        for (const char byte : line) {
            ASSERT_TRUE(byte >= 0x20 && byte < 0x7f) << line;
        }
        EXPECT_FALSE(nlohmann::json::parse(line)["comm"].get<std::string>().empty());
    }
    EXPECT_EQ(nlohmann::json::parse(FormatEventJson(Create("sixteen-letters!"), 0))["comm"],
              "sixteen-letters!");
    EXPECT_EQ(nlohmann::json::parse(FormatEventJson(Create("\xf0\x9f\x9a\x80"), 0))["comm"],
              "\xf0\x9f\x9a\x80");
}

TEST(EventNames, TakesNamesNumbersAndLists) {
    std::vector<int> types;
    std::string error;
    ASSERT_TRUE(
        ParseEventTypes({"exit,2", "memory-change", "task-exit", "50003,fds"}, &types, &error));
    EXPECT_THAT(types, ElementsAre(3, 2, 50004, 50003, 6));

    types.clear();
    ASSERT_TRUE(ParseEventTypes({"exit", "all"}, &types, &error));
    EXPECT_THAT(types, ElementsAre(3, 0, 1, 2, 4, 5, 6, 50001, 50002, 50003, 50004));

    for (const std::string bad : {"forks", "7", "-1", "2x", "02", "", ",", "exit, fork"}) {
        types.clear();
        error.clear();
        EXPECT_FALSE(ParseEventTypes({bad}, &types, &error)) << bad;
        EXPECT_THAT(error, AllOf(HasSubstr("task-create"), HasSubstr("50004"))) << bad;
    }
}

}  // namespace
}  // namespace Tesu::Bpf
