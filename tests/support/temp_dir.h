// SPDX-License-Identifier: Apache-2.0
//
// A folder of a test's own, gone with it, and files in it.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <system_error>

class TempDir {
  public:
    TempDir() : root(testing::TempDir() + "tesubpf.XXXXXX") {
        EXPECT_NE(mkdtemp(root.data()), nullptr);
    }
    ~TempDir() {
        std::error_code ignored;
        std::filesystem::remove_all(root, ignored);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return root; }
    std::string path(const std::string& name) const { return root + "/" + name; }

    // With the folders that lead to it.
    void write(const std::string& name, const std::string& text) const {
        std::filesystem::create_directories(std::filesystem::path(path(name)).parent_path());
        std::ofstream(path(name), std::ios::binary) << text;
    }
    void makeFolder(const std::string& name) const {
        std::filesystem::create_directories(path(name));
    }

  private:
    std::string root;
};

// Empty when there is no such file.
inline std::string ReadWholeFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}
