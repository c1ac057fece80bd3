// SPDX-License-Identifier: Apache-2.0
#include "loader/sample_files.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Tesu::Bpf {

namespace {

using android::base::unique_fd;

// So many entries of the array of open files are compared.
constexpr int DESCRIPTOR_LIMIT = 1024;

}  // namespace

SampleFiles::SampleFiles() {
    // Of two file systems, so that their inode numbers come from different counters.
    const unique_fd first(memfd_create("first", MFD_CLOEXEC));
    const unique_fd second(memfd_create("second", MFD_CLOEXEC));
    int ends[2] = {-1, -1};
    if (pipe2(ends, O_CLOEXEC) != 0) {
        return;
    }
    const unique_fd third(ends[0]);
    const unique_fd writeEnd(ends[1]);
    files.resize(3);
    if (!add(first, 0) || !add(second, 1) || !add(first, 0) || !add(third, 2) || !add(second, 1) ||
        !add(first, 0)) {
        files.clear();
    }
}

bool SampleFiles::add(const unique_fd& file, size_t sample) {
    unique_fd copy(fcntl(file.get(), F_DUPFD_CLOEXEC, 0));
    struct stat status = {};
    if (!copy.ok() || copy.get() >= DESCRIPTOR_LIMIT || fstat(copy.get(), &status) != 0) {
        return false;
    }
    files[sample].descriptors.push_back(static_cast<uint32_t>(copy.get()));
    files[sample].inode = status.st_ino;
    descriptors.push_back(std::move(copy));
    return true;
}

}  // namespace Tesu::Bpf
