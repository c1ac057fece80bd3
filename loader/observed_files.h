// SPDX-License-Identifier: Apache-2.0
//
// Files that this process opens to be looked at, under descriptor numbers that make a pattern.
#pragma once

#include <android-base/unique_fd.h>

#include <vector>

#include "loader/file_probe.h"

namespace Tesu::Bpf {

class ObservedFiles {
  public:
    ObservedFiles();
    ObservedFiles(const ObservedFiles&) = delete;
    ObservedFiles& operator=(const ObservedFiles&) = delete;

    // Empty when the files could not be opened.
    const std::vector<FileSample>& samples() const { return observed; }

  private:
    // Opens the file again under the next number of the pattern.
    bool add(const android::base::unique_fd& file, size_t sample);

    std::vector<FileSample> observed;
    std::vector<android::base::unique_fd> descriptors;
};

}  // namespace Tesu::Bpf
