// SPDX-License-Identifier: Apache-2.0
//
// A test with the service in this process. It needs no kernel programs: a service that waits for
// readiness serves clients already.
#pragma once

#include <android-base/properties.h>

#include <algorithm>
#include <filesystem>
#include <future>
#include <string>

#include "records/contract.h"
#include "service/tesu_bpf_service.h"
#include "tests/support/sandbox.h"
#include "tests/support/temp_dir.h"
#include "tests/support/wire_client.h"

namespace Tesu::Bpf {

// Threads of this process.
inline long CountThreads(const std::string& name) {
    const std::filesystem::directory_iterator threads("/proc/self/task");
    return std::count_if(begin(threads), end(threads), [&](const auto& thread) {
        return ReadWholeFile(thread.path() / "comm") == name + "\n";
    });
}

// Starts nothing by itself.
template <class Sandbox>
class ServiceIn : public Sandbox {
  protected:
    ~ServiceIn() override { service->stop(); }

    void start(const std::string& ready = "0") {
        android::base::SetProperty(READY_PROPERTY, ready);
        ASSERT_TRUE(BpfServiceMain());
        waitResult = std::async(std::launch::async, [this] { return service->Wait(); });
    }

    TesuBpfService* const service = TesuBpfService::GetInstance();
    WireClient client;
    std::future<int> waitResult;  // of Wait()
};

// With a service that runs and a client that is connected.
class ServedTest : public ServiceIn<SandboxTest> {
  protected:
    void SetUp() override {
        SandboxTest::SetUp();
        if (!IsSkipped()) {
            start();
            ASSERT_TRUE(client.connectTo(SERVICE_SOCKET_NAME));
        }
    }
};

}  // namespace Tesu::Bpf
