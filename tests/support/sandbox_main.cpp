// SPDX-License-Identifier: Apache-2.0
//
// main() of test programs that need a kernel for themselves: a network and mount namespace of their
// own, so that they meet no daemon and no pins of the machine, and leave nothing behind.
#include <gtest/gtest.h>

#include <string>

#include "tests/support/bpf_sandbox.h"
#include "tests/support/sandbox_test.h"

namespace {

std::string& Reason() {
    static std::string reason;
    return reason;
}

}  // namespace

const std::string& WhyNoSandbox() {
    return Reason();
}

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    std::string reason;
    if (!GTEST_FLAG_GET(list_tests) && !Tesu::Bpf::EnterBpfSandbox(&reason)) {
        Reason() = reason;
    }
    return RUN_ALL_TESTS();
}
