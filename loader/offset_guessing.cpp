// SPDX-License-Identifier: Apache-2.0
#include "loader/offset_guessing.h"

#include <android-base/stringprintf.h>
#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <functional>
#include <random>
#include <vector>

#include "loader/file_offsets.h"
#include "loader/kernel_memory.h"
#include "loader/sample_task.h"

namespace Tesu::Bpf {

namespace {

using android::base::unique_fd;

// So many entries of the array of open files are compared.
constexpr int DESCRIPTOR_LIMIT = 1024;

// Opens files as samples, under descriptors that make a pattern; `held` keeps them open. Empty when
// they could not be opened.
std::vector<FileSample> OpenSampleFiles(std::vector<unique_fd>* held) {
    // Of two file systems, so that their inode numbers come from different counters.
    unique_fd files[] = {unique_fd(memfd_create("first", MFD_CLOEXEC)),
                         unique_fd(memfd_create("second", MFD_CLOEXEC)), unique_fd()};
    unique_fd writeEnd;
    Pipe(&files[2], &writeEnd);
    std::vector<FileSample> samples(std::size(files));
    for (const int file : {0, 1, 0, 2, 1, 0}) {
        const unique_fd& copy = held->emplace_back(fcntl(files[file].get(), F_DUPFD_CLOEXEC, 0));
        struct stat status = {};
        if (copy.get() >= DESCRIPTOR_LIMIT || fstat(copy.get(), &status) != 0) {
            return {};
        }
        samples[file].descriptors.push_back(static_cast<uint32_t>(copy.get()));
        samples[file].inode = status.st_ino;
    }
    return samples;
}

}  // namespace

Result<> GuessOffsets(TesuKernelLayout* layout) {
    const Result<KernelMemory> memory = KernelMemory::Open();
    if (!memory) {
        return Failure(memory.error());
    }
    // The bytes behind a task_struct are often its neighbour's, which must not have the same name:
    // another loader may run, or have run, beside this one.
    std::random_device entropy;
    const SampleTask first(*memory, 3, android::base::StringPrintf("task-%08x", entropy()));
    const SampleTask second(*memory, 6, android::base::StringPrintf("task-%08x", entropy()));
    KernelMemoryRequest self = {};
    if (!first.ok() || !second.ok() || !memory->run(&self)) {
        return Failure("cannot read a thread's task_struct");
    }
    const ReadKernelMemory read = std::bind_front(&KernelMemory::read, &*memory);
    Result<> tasks = GuessTaskOffsets({first.sample(), second.sample()}, read, layout);
    std::vector<unique_fd> held;
    const std::vector<FileSample> files = OpenSampleFiles(&held);
    if (tasks && !files.empty()) {
        (void)GuessFileOffsets(read(self.address, KERNEL_MEMORY_BYTES), files, read, layout);
    }
    return tasks;
}

}  // namespace Tesu::Bpf
