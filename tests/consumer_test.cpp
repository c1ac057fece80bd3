// SPDX-License-Identifier: Apache-2.0
//
// The example of a client, made of the installed library as its users make theirs
// (tests/consumer/build), at the service.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "tests/support/child_process.h"
#include "tests/support/records.h"
#include "tests/support/served_test.h"

namespace Tesu::Bpf {
namespace {

using ConsumerTest = ServedTest;

TEST_F(ConsumerTest, HearsOfAForkHoweverItWasBuilt) {
    setenv("LD_LIBRARY_PATH", TESUBPF_STAGE_LIBRARIES, 1);
    for (const std::string build : {"c", "cxx", "cmake"}) {
        ChildProcess example({TESUBPF_STAGE "/forks-" + build});
        ASSERT_TRUE(example.waitForOutput("listening\n")) << example.error;
        for (const int32_t kind : {RAW_TASK_THREAD, RAW_TASK_PROCESS}) {
            std::string record = Bytes(Create(0, 1, 10 + kind, "sixteen-letters!", kind));
            TesuBpfService::handleBpfRingBuffEvent(nullptr, record.data(), 48);
        }
        EXPECT_TRUE(example.waitForOutput("letters!\n"));
        EXPECT_EQ(example.output, "listening\n1 forked 11 sixteen-letters!\n");
    }
}

}  // namespace
}  // namespace Tesu::Bpf
