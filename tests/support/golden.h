// SPDX-License-Identifier: Apache-2.0
//
// Output that is to be what it was, byte for byte. The files are in tests/data of the sources, or
// in the folder that TESUBPF_TEST_DATA of the environment names. With TESUBPF_UPDATE_GOLDEN set
// they are written instead of compared: read what changed.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include "tests/support/temp_dir.h"

inline void ExpectGolden(const std::string& name, const std::string& text) {
    const char* const folder = std::getenv("TESUBPF_TEST_DATA");
    const std::string path = (folder != nullptr ? folder : TESUBPF_TEST_DATA) + ("/" + name);
    if (std::getenv("TESUBPF_UPDATE_GOLDEN") != nullptr) {
        std::ofstream(path, std::ios::binary) << text;
    }
    const std::string golden = ReadWholeFile(path);
    ASSERT_FALSE(golden.empty()) << "no " << path;
    EXPECT_EQ(text, golden) << name;
}
