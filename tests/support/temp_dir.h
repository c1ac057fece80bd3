// SPDX-License-Identifier: Apache-2.0
//
// A folder of a test's own, gone with it, and files in it.
#pragma once

#include <android-base/file.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

class TempDir {
  public:
    std::string path() const { return root.path; }
    std::string path(const std::string& name) const { return path() + "/" + name; }

    // With the folders that lead to it.
    void write(const std::string& name, const std::string& text) const {
        std::filesystem::create_directories(std::filesystem::path(path(name)).parent_path());
        std::ofstream(path(name), std::ios::binary) << text;
    }

  private:
    TemporaryDir root;
};

// Empty when there is no such file.
inline std::string ReadWholeFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}
