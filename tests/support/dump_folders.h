// SPDX-License-Identifier: Apache-2.0
//
// Tests that write dumps where the service does share the machine's root file system. Folders that
// were not there before are removed with what the test left in them.
#pragma once

#include <filesystem>
#include <string>
#include <system_error>

class DumpFolders {
  public:
    explicit DumpFolders(const std::string& folder) {
        for (std::filesystem::path path = folder;
             path != path.root_path() && !std::filesystem::exists(path);
             path = path.parent_path()) {
            outermost = path;
        }
    }
    ~DumpFolders() {
        std::error_code ignored;
        if (!outermost.empty()) {
            std::filesystem::remove_all(outermost, ignored);
        }
    }
    DumpFolders(const DumpFolders&) = delete;
    DumpFolders& operator=(const DumpFolders&) = delete;

  private:
    std::filesystem::path outermost;  // of those that were missing; empty: none
};
