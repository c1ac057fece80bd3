// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <sstream>

#include "util/string_util.h"
#include "util/time_util.h"

namespace Tesu::Bpf {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

TEST(StringUtil, IsDigits) {
    for (const char* yes : {"0", "007", "4294967296"}) {
        EXPECT_TRUE(IsDigits(yes)) << yes;
    }
    for (const char* no : {"", "12a", "-1", " 1", "self", "\xb2"}) {
        EXPECT_FALSE(IsDigits(no)) << no;
    }
}

TEST(StringUtil, ConvertToHexString) {
    EXPECT_EQ(ConvertToHexString("\x01\xab\xff", 3), "01 ab ff ");
    EXPECT_EQ(ConvertToHexString("x", 0), "");
    EXPECT_EQ(ConvertToHexString("x", -1), "");
}

TEST(StringUtil, StringPrintfHasNoLimit) {
    EXPECT_EQ(StringPrintf("%s", ""), "");
    EXPECT_EQ(StringPrintf("%s-%d", "a", 7), "a-7");
    const std::string longText(100000, 'x');
    EXPECT_EQ(StringPrintf("<%s>", longText.c_str()), "<" + longText + ">");
}

TEST(StringUtil, SplitDropsEmptyPieces) {
    EXPECT_THAT(Split("a,,b,", ","), ElementsAre("a", "b"));
    EXPECT_THAT(Split("x::y:z", "::"), ElementsAre("x", "y:z"));
    EXPECT_THAT(Split("abc", ","), ElementsAre("abc"));
    EXPECT_THAT(Split(",,,", ","), IsEmpty());
    EXPECT_THAT(Split("", ","), IsEmpty());
    EXPECT_THAT(Split("abc", ""), ElementsAre("abc"));
}

TEST(TimeUtil, BootTimeIsFoundInProcStat) {
    std::istringstream stat("cpu 1 2\nintr 5\nbtime 1700000000\nprocesses 3\n");
    EXPECT_EQ(ParseBootTime(stat, 0), 1700000000);
    std::istringstream without("cpu 1 2\n");
    EXPECT_EQ(ParseBootTime(without, 42), 42);
    std::istringstream late("btime 4294967296\n");
    EXPECT_EQ(ParseBootTime(late, 0), 4294967296) << "past 32 bits";
}

TEST(TimeUtil, ClocksCountFromBootTime) {
    const unsigned long long before = GetSystemSecondsTime();
    ASSERT_TRUE(InitBasetime());
    const auto baseTime = static_cast<unsigned long long>(GetBasetime());
    EXPECT_GT(baseTime, 1600000000U);
    EXPECT_GE(GetSystemSecondsTime(), before + baseTime);
    // All units tell the same time, to the coarse clock's tick.
    const unsigned long long seconds = GetSystemSecondsTime();
    for (const unsigned long long other :
         {GetSystemNanosencondsTime() / 1000000000, GetSystemMicrosencondsTime() / 1000000,
          GetSystemMillisecondsTime(true) / 1000, GetSystemMillisecondsTime(false) / 1000}) {
        EXPECT_GE(other + 1, seconds);
        EXPECT_LE(other, seconds + 60);
    }
}

TEST(TimeUtil, NarrowNanosecondsWrapAndExtendTheSign) {
    EXPECT_EQ(NarrowNanoseconds(5, 0), 705032704U);
    EXPECT_EQ(NarrowNanoseconds(2, 999999999),
              static_cast<unsigned long long>(2999999999LL - 4294967296LL));
    EXPECT_EQ(NarrowNanoseconds(0, 7), 7U);
}

TEST(TimeUtil, SubAbs) {
    EXPECT_EQ(SubAbs(5, 9), 4);
    EXPECT_EQ(SubAbs(9, 5), 4);
    EXPECT_EQ(SubAbs(-3, -3), 0);
    constexpr auto MIN = std::numeric_limits<long long>::min();
    constexpr auto MAX = std::numeric_limits<long long>::max();
    EXPECT_EQ(SubAbs(MIN, MAX), MAX);
    EXPECT_EQ(SubAbs(MIN, 0), MAX);
}

}  // namespace
}  // namespace Tesu::Bpf
