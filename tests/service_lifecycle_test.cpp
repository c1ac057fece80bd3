// SPDX-License-Identifier: Apache-2.0
//
// Start, supervision and stop of the service, without programs to attach.
#include <android-base/properties.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <thread>

#include "service/tesu_bpf_service.h"
#include "tests/support/sandbox.h"
#include "tests/support/wait_until.h"
#include "tests/support/wire_client.h"

namespace Tesu::Bpf {
namespace {

constexpr const char* SOCKET = "/mnt/bpfframework/tesubpfdispatcher";

std::multiset<std::string> ThreadNames() {
    std::multiset<std::string> names;
    std::error_code error;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task", error)) {
        std::ifstream comm(task.path() / "comm");
        std::string name;
        std::getline(comm, name);
        names.insert(name);
    }
    return names;
}

bool HasThread(const char* name) {
    return ThreadNames().count(name) > 0;
}

using ServiceLifecycleTest = KernelTest;

TEST_F(ServiceLifecycleTest, DisabledOnlyByExactlyOne) {
    android::base::SetProperty("persist.sys.stability.bpfframework.disable", "1");
    EXPECT_FALSE(BpfServiceMain());
    EXPECT_FALSE(HasThread("BpfServicePoll"));
    android::base::SetProperty("persist.sys.stability.bpfframework.disable", "01");
    EXPECT_TRUE(BpfServiceMain());
    TesuBpfService::GetInstance()->stop();
    EXPECT_EQ(TesuBpfService::GetInstance()->Wait(), 0);
}

TEST_F(ServiceLifecycleTest, KernelVersionMatchesExactly) {
    EXPECT_FALSE(TesuBpfService::checkKernelVersion());
    for (const char* other : {"6.10", "6.1.25", "6.6", "6.1 "}) {
        android::base::SetProperty("ro.kernel.version", other);
        EXPECT_FALSE(TesuBpfService::checkKernelVersion()) << other;
    }
    android::base::SetProperty("ro.kernel.version", "6.1");
    EXPECT_TRUE(TesuBpfService::checkKernelVersion());
}

TEST_F(ServiceLifecycleTest, ServesWhileItWaitsForReadinessAndStopsFromThere) {
    android::base::SetProperty("sys.tesu_bpf_ready", "0");
    android::base::SetProperty("ro.kernel.version", "6.1");
    ASSERT_TRUE(BpfServiceMain());
    ASSERT_TRUE(BpfServiceMain()) << "a second start keeps what runs";
    TesuBpfService* service = TesuBpfService::GetInstance();
    std::thread supervisor([&] { EXPECT_EQ(service->Wait(), 0); });
    WireClient client;
    ASSERT_TRUE(client.connectTo(SOCKET));
    EXPECT_EQ(client.subscribe(2), 0);
    EXPECT_EQ(ThreadNames().count("BpfServicePoll"), 1U);
    EXPECT_FALSE(HasThread("BpfServicePGpl")) << "not before readiness, not by Wait() either";

    service->stop();
    WireClient late;
    EXPECT_FALSE(late.tryConnect(SOCKET));
    supervisor.join();
    EXPECT_FALSE(HasThread("BpfServicePoll"));
    EXPECT_FALSE(service->start()) << "a stopped service stays stopped";
    EXPECT_EQ(service->Wait(), 0);
}

TEST_F(ServiceLifecycleTest, MonitorsThatFindNoMapsEndAndTheRestGoesOn) {
    android::base::SetProperty("sys.tesu_bpf_ready", "false");  // anything but "0" is ready
    android::base::SetProperty("ro.kernel.version", "6.1");
    ASSERT_TRUE(BpfServiceMain());
    WireClient client;
    ASSERT_TRUE(client.connectTo(SOCKET));
    EXPECT_TRUE(
        WaitUntil([] { return !HasThread("BpfServicePoll") && !HasThread("BpfServicePGpl"); }));
    EXPECT_EQ(client.subscribe(2), 0);
    TesuBpfService* service = TesuBpfService::GetInstance();
    EXPECT_FALSE(service->enableCoreBpf(RING_CORE, true)) << "there is no map to write";
    EXPECT_FALSE(service->enableNormalBpf(RING_COUNT, true));
    EXPECT_FALSE(service->checkBpfRingBuffStatus(-1, true));
    EXPECT_TRUE(service->checkBpfRingBuffStatus(RING_CORE, true)) << "unreadable flags are 0";
    service->stop();
    service->Wait();
}

}  // namespace
}  // namespace Tesu::Bpf
