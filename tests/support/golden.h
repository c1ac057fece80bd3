// SPDX-License-Identifier: Apache-2.0
//
// Output that is to be what it was, byte for byte. The files are in tests/data of the sources, or in
// the folder that TESUBPF_TEST_DATA of the environment names. With TESUBPF_UPDATE_GOLDEN set they
// are written instead of compared.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include "tests/support/temp_dir.h"

inline std::string DataPath(const std::string& name) {
    const char* const folder = std::getenv("TESUBPF_TEST_DATA");
    return std::string(folder != nullptr ? folder : TESUBPF_TEST_DATA) + "/" + name;
}

inline void ExpectGolden(const std::string& name, const std::string& text) {
    if (std::getenv("TESUBPF_UPDATE_GOLDEN") != nullptr) {
        std::ofstream(DataPath(name), std::ios::binary) << text;
        return;
    }
    const std::string golden = ReadWholeFile(DataPath(name));
    ASSERT_FALSE(golden.empty()) << "no " << DataPath(name);
    EXPECT_EQ(text, golden) << name;
}
