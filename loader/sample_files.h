// SPDX-License-Identifier: Apache-2.0
//
// Files that this process opens as samples, under descriptor numbers that make a pattern.
#pragma once

#include <android-base/unique_fd.h>

#include <vector>

#include "loader/file_offsets.h"

namespace Tesu::Bpf {

class SampleFiles {
  public:
    SampleFiles();
    SampleFiles(const SampleFiles&) = delete;
    SampleFiles& operator=(const SampleFiles&) = delete;

    // Empty when the files could not be opened.
    const std::vector<FileSample>& samples() const { return files; }

  private:
    // Opens the file again under the next number of the pattern.
    bool add(const android::base::unique_fd& file, size_t sample);

    std::vector<FileSample> files;
    std::vector<android::base::unique_fd> descriptors;
};

}  // namespace Tesu::Bpf
