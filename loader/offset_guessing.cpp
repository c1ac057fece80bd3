// SPDX-License-Identifier: Apache-2.0
#include "loader/offset_guessing.h"

#include <android-base/stringprintf.h>

#include <random>

#include "loader/kernel_memory.h"
#include "loader/sample_files.h"
#include "loader/sample_task.h"

namespace Tesu::Bpf {

namespace {

// To KernelMemory: the task_struct of this process.
constexpr uint64_t OWN_TASK = 0;

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
    if (!first.ok() || !second.ok()) {
        return Failure("cannot read a thread's task_struct");
    }
    const ReadKernelMemory read = [&](uint64_t address, uint32_t size) {
        return memory->read(address, size);
    };
    const auto tasks = GuessTaskOffsets({first.sample(), second.sample()}, read, layout);
    const SampleFiles files;
    if (tasks && !files.samples().empty()) {
        (void)GuessFileOffsets(memory->read(OWN_TASK, KERNEL_MEMORY_BYTES), files.samples(), read,
                               layout);
    }
    return tasks;
}

}  // namespace Tesu::Bpf
