// SPDX-License-Identifier: Apache-2.0
//
// A capture of records goes the way of every record, and what an operator and a client then get is
// byte for byte what it was on every other machine, but for the time of day. Needs no kernel.
//
// The files are in tests/data of the sources, or in the folder that TESUBPF_TEST_DATA of the
// environment names. With TESUBPF_UPDATE_GOLDEN set they are written instead of compared.
#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "diag/tesu_bpf_state.h"
#include "records/raw_event.h"
#include "service/tesu_bpf_service.h"
#include "task/tesu_bpf_task_manager.h"
#include "tests/support/event_capture.h"
#include "tests/support/temp_dir.h"
#include "util/time_util.h"

namespace Tesu::Bpf {
namespace {

std::string DataPath(const std::string& name) {
    const char* const folder = std::getenv("TESUBPF_TEST_DATA");
    return std::string(folder != nullptr ? folder : TESUBPF_TEST_DATA) + "/" + name;
}

void ExpectGolden(const std::string& name, const std::string& text) {
    if (std::getenv("TESUBPF_UPDATE_GOLDEN") != nullptr) {
        std::ofstream(DataPath(name), std::ios::binary) << text;
        return;
    }
    const std::string golden = ReadWholeFile(DataPath(name));
    ASSERT_FALSE(golden.empty()) << "no " << DataPath(name);
    EXPECT_EQ(text, golden) << name;
}

// The records of a file in which each stands behind its length in 4 bytes.
std::vector<std::string> ReadCapture(const std::string& path) {
    const std::string bytes = ReadWholeFile(path);
    std::vector<std::string> records;
    for (size_t at = 0; at + sizeof(uint32_t) <= bytes.size();) {
        uint32_t length = 0;
        std::memcpy(&length, &bytes[at], sizeof(length));
        records.push_back(bytes.substr(at + sizeof(length), length));
        at += sizeof(length) + length;
    }
    return records;
}

// The clocks of a moment: of the title, and of tasks that were made by a record.
struct Moment {
    uint64_t wall = static_cast<uint64_t>(time(nullptr));
    uint64_t service = GetSystemSecondsTime();
};

// Puts NOW for numbers at the end of a line that are a time of the test. The others are the
// capture's.
std::string MaskTimes(const std::string& dump, const Moment& begin, const Moment& end) {
    static const std::regex LAST_NUMBER(R"( *\d+(?=\)? *=*\n))");
    std::string masked;
    auto from = dump.cbegin();
    for (std::sregex_iterator match(dump.begin(), dump.end(), LAST_NUMBER), none; match != none;
         ++match) {
        const uint64_t seconds = std::strtoull(match->str().c_str(), nullptr, 10);
        const bool isNow = (seconds >= begin.wall && seconds <= end.wall) ||
                           (seconds >= begin.service && seconds <= end.service);
        masked.append(from, (*match)[0].first);
        masked += isNow ? " NOW" : match->str();
        from = (*match)[0].second;
    }
    return masked.append(from, dump.cend());
}

// The counters' column names, and one row for all seconds together.
std::string SumSeconds(const std::string& csv) {
    std::istringstream lines(csv);
    std::string header;
    std::getline(lines, header);
    std::array<int64_t, 1 + STATE_KIND_COUNT> sums{};
    for (std::string line; std::getline(lines, line);) {
        EXPECT_TRUE(line.ends_with(", \r")) << line;
        std::istringstream cells(line);
        for (int64_t& sum : sums) {
            int64_t count = 0;
            char comma = 0;
            cells >> count >> comma;
            EXPECT_EQ(comma, ',') << line;
            sum += count;
        }
    }
    std::string text = std::regex_replace(header, std::regex(R"(\d{1,20}, 0 \r$)"), "") + "\n";
    for (const int64_t sum : sums) {
        text += std::to_string(sum) + ", ";
    }
    return text + "\n";
}

std::string Hex(const std::string& bytes) {
    std::string text;
    for (const char byte : bytes) {
        constexpr const char* DIGITS = "0123456789abcdef";
        text += DIGITS[static_cast<uint8_t>(byte) >> 4];
        text += DIGITS[byte & 0xf];
    }
    return text;
}

TEST(DumpGoldenTest, ACaptureGivesTheSameFilesOnEveryMachine) {
    const std::vector<std::string> records = ReadCapture(DataPath("records.capture"));
    ASSERT_FALSE(records.empty()) << "no " << DataPath("records.capture");
    InitBasetime();
    TesuBpfService::GetInstance();
    const Moment begin;
    EventCapture client{50001, 50002, 50003, 50004};
    for (std::string record : records) {
        EXPECT_EQ(TesuBpfService::handleBpfRingBuffEvent(nullptr, record.data(),
                                                         static_cast<unsigned>(record.size())),
                  0);
    }

    TesuTaskManager* const manager = TesuTaskManager::GetInstance();
    const auto expectDump = [&](const std::string& name, auto dump) {
        (manager->*dump)();
        ExpectGolden(name, MaskTimes(ReadWholeFile(TesuTaskManager::TESUTASK_DUMP_TEMPLATE), begin,
                                     Moment()));
    };
    expectDump("tasks.golden", &TesuTaskManager::DumpTesuTaskInfo);
    expectDump("tasks-no-kernel.golden", &TesuTaskManager::DumpTesuTaskIgnoreKernelTaskInfo);
    expectDump("tasks-normal.golden", &TesuTaskManager::DumpTesuTaskInfoNormal);
    expectDump("tasks-no-kernel-normal.golden",
               &TesuTaskManager::DumpTesuTaskIgnoreKernelTaskInfoNormal);
    TesuBpfDataState::GetInstance()->DumpState();
    ExpectGolden("counters.golden",
                 SumSeconds(ReadWholeFile(TesuBpfDataState::TESUTASK_DUMP_TEMPLATE)));
    std::string notifications;
    for (const std::string& event : client.take()) {
        notifications += Hex(event) + "\n";
    }
    ExpectGolden("notifications.golden", notifications);
}

}  // namespace
}  // namespace Tesu::Bpf
