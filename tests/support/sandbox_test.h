// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <gtest/gtest.h>

#include <string>

// Empty inside a sandbox, else what was missing for one. From sandbox_main.cpp.
const std::string& WhyNoSandbox();

// A test that runs only in a sandbox of its own, and says why where it cannot.
class SandboxTest : public testing::Test {
  protected:
    void SetUp() override {
        if (!WhyNoSandbox().empty()) {
            GTEST_SKIP() << WhyNoSandbox();
        }
    }
};
