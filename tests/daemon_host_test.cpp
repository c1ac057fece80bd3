// SPDX-License-Identifier: Apache-2.0
//
// What the daemon prepares for the service: properties, folders, and that it is alone.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "daemon/host_files.h"
#include "daemon/instance_lock.h"
#include "daemon/properties.h"

namespace Tesu::Bpf {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Pair;

class Folder : public testing::Test {
  protected:
    void SetUp() override {
        std::string pattern = testing::TempDir() + "tesubpfd.XXXXXX";
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        path = pattern;
    }
    void TearDown() override { std::filesystem::remove_all(path); }

    std::string path;
};

TEST(DaemonProperties, ParsesSettings) {
    Properties properties;
    std::string error;
    ASSERT_TRUE(ParseProperties({"a=1", "b=", "c=x=y", "a=2"}, &properties, &error));
    EXPECT_THAT(properties, ElementsAre(Pair("a", "2"), Pair("b", ""), Pair("c", "x=y")));
    for (const std::string bad : {"", "name", "=value"}) {
        EXPECT_FALSE(ParseProperties({"good=1", bad}, &properties, &error));
        EXPECT_THAT(error, HasSubstr("\"" + bad + "\""));
    }
}

TEST(DaemonProperties, TakesMajorAndMinorOfAKernelRelease) {
    EXPECT_EQ(MajorMinor("6.1.0-13-armmp"), "6.1");
    EXPECT_EQ(MajorMinor("6.18.44-cloud-amd64"), "6.18");
    EXPECT_EQ(MajorMinor("6.1"), "6.1");
    EXPECT_EQ(MajorMinor("6.1-rc3"), "6.1");
    for (const std::string odd : {"", "6", "6.", ".1", "next.1", "6.x"}) {
        EXPECT_EQ(MajorMinor(odd), odd);
    }
}

using DaemonFolders = Folder;

TEST_F(DaemonFolders, MakesTheFoldersAboveAPathAndNotThePath) {
    const mode_t mask = umask(027);
    std::string failed;
    EXPECT_TRUE(MakeParents(path + "/one/two/last", &failed));
    EXPECT_TRUE(MakeParents(path + "/one/two/last", &failed));
    umask(mask);
    struct stat status {};
    for (const char* const made : {"/one", "/one/two"}) {
        ASSERT_EQ(stat((path + made).c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 07777, 0775U);
    }
    EXPECT_FALSE(std::filesystem::exists(path + "/one/two/last"));

    std::ofstream(path + "/file") << "in the way";
    EXPECT_FALSE(MakeParents(path + "/file/two/last", &failed));
    EXPECT_EQ(failed, path + "/file/two");
}

TEST_F(DaemonFolders, FindsTheCorePinsWhenBothAreThere) {
    EXPECT_EQ(FindCorePins(path), PinState::ABSENT);
    std::ofstream(path + "/map_TesuBpfDefineset_ringbuf_map") << "";
    EXPECT_EQ(FindCorePins(path), PinState::ABSENT);
    std::ofstream(path + "/map_TesuBpfDefineset_ringbuf_status") << "";
    EXPECT_EQ(FindCorePins(path), PinState::PRESENT);
    EXPECT_EQ(FindCorePins(path + "/map_TesuBpfDefineset_ringbuf_map"), PinState::UNREADABLE);
}

TEST(DaemonInstanceLock, IsHeldByOneAndFreeAfterwards) {
    const std::string name = "/tesubpf/test/lock." + std::to_string(getpid());
    {
        const android::base::unique_fd held = AcquireInstanceLock(name);
        ASSERT_NE(held.get(), -1);
        EXPECT_EQ(AcquireInstanceLock(name).get(), -1);
        EXPECT_EQ(errno, EADDRINUSE);
    }
    EXPECT_NE(AcquireInstanceLock(name).get(), -1);
}

}  // namespace
}  // namespace Tesu::Bpf
