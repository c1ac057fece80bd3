// SPDX-License-Identifier: Apache-2.0
//
// The loader on the running kernel: what it pins, when it loads anew, what it says when it cannot.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <sstream>

#include "loader/load_set.h"
#include "loader/pin_set.h"
#include "tests/support/kernel.h"
#include "tests/support/temp_dir.h"

namespace Tesu::Bpf {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

const std::string PINS = PIN_DIR;
const std::string STAGING = PINS + "_loading";
const std::string RSS_STAT_PIN = "/prog_TesuBpfDefineset_tracepoint_kmem_rss_stat";

class LoaderTest : public KernelTest {
  protected:
    void TearDown() override { (void)RemovePins(PINS); }

    // Both return everything the loader says.
    static std::string load(const LoadOptions& options = {}, LoaderStatus status = LOADER_DONE) {
        std::ostringstream text;
        EXPECT_EQ(LoadSet(options, text, text), status) << text.str();
        return text.str();
    }
    static std::string unload(LoaderStatus status = LOADER_DONE) {
        std::ostringstream text;
        EXPECT_EQ(UnloadSet(PINS, text, text), status) << text.str();
        return text.str();
    }
};

TEST_F(LoaderTest, PinsOnceLoadsAnIncompleteSetAnewAndUnloads) {
    EXPECT_THAT(load(), AllOf(HasSubstr("TesuBpfDefineset: 6 programs"),
                              HasSubstr("TesuBpfGplDefineset: 4 programs"),
                              HasSubstr("ring buffer of 1048576 bytes"), Not(HasSubstr("left"))));
    SetRingFlags(RING_CORE, FLAG_CORE_ENABLED);
    LoadOptions small;
    small.ringBytes = 65536;
    small.rssStep = 32768;
    small.pinDir = "/sys/fs/bpf//tesu/";
    EXPECT_THAT(load(small),
                AllOf(HasSubstr("already loaded"), HasSubstr("has 4194304 bytes, not 65536")));
    EXPECT_EQ(ReadRingStatus(RING_CORE, RING_STATUS_FLAGS), FLAG_CORE_ENABLED);

    ASSERT_EQ(unlink((PINS + RSS_STAT_PIN).c_str()), 0);
    ASSERT_EQ(mkdir(STAGING.c_str(), 0755), 0);  // of a loader that was killed
    EXPECT_THAT(load(small), AllOf(HasSubstr("incomplete set"), HasSubstr("kmem_rss_stat"),
                                   HasSubstr("ring buffer of 65536 bytes")));
    EXPECT_EQ(ReadRingStatus(RING_CORE, RING_STATUS_FLAGS), 0U);
    EXPECT_TRUE(std::filesystem::exists(PINS + RSS_STAT_PIN));
    EXPECT_FALSE(std::filesystem::exists(STAGING));
    small.rssStep = 0;
    EXPECT_THAT(load(small), HasSubstr("is 32768 bytes, not 0"));

    // A file of others is kept.
    ASSERT_EQ(mkdir((PINS + "/foreign").c_str(), 0755), 0);
    EXPECT_THAT(unload(LOADER_FAILED), HasSubstr("Directory not empty"));
    EXPECT_EQ(rmdir((PINS + "/foreign").c_str()), 0);
    load();
    EXPECT_THAT(unload(), HasSubstr("pins removed"));
    EXPECT_FALSE(std::filesystem::exists(PINS));
    EXPECT_THAT(unload(), HasSubstr("nothing is loaded"));
}

// A kernel without the memory tracepoint, with a fork tracepoint unlike ours, and with a verifier
// that does not let a pointer go as far as one program would have it.
TEST_F(LoaderTest, LeavesOutWhatTheKernelCannotTake) {
    const TempDir tracefs;
    for (const std::string name : {"sched/sched_switch", "sched/sched_process_exit",
                                   "sched/sched_process_fork", "cgroup/cgroup_attach_task"}) {
        const std::string path = "events/" + name + "/format";
        std::string format = ReadWholeFile(TRACEFS_ROOT + ("/" + path));
        if (const size_t child = format.find("child_pid"); child != std::string::npos) {
            format[child] = 'x';
        }
        tracefs.write(path, format);
    }
    LoadOptions options;
    options.findLayout = [&] {
        KernelLayout layout = FindKernelLayout(tracefs.path());
        layout.values.cgroupPid = 0x40000000;
        return layout;
    };
    EXPECT_THAT(
        load(options),
        AllOf(HasSubstr("TesuBpfDefineset: 4 programs"), HasSubstr("TesuBpfGplDefineset: 3"),
              HasSubstr("program tracepoint_sched_sched_process_fork: left out: tracepoint "
                        "sched/sched_process_fork has no usable field child_pid"),
              HasSubstr("program tracepoint_cgroup_cgroup_attach_task: left out: Invalid argument "
                        "(math between ctx pointer and 1073741824 is not allowed)")));
    EXPECT_FALSE(std::filesystem::exists(PINS + RSS_STAT_PIN));
    EXPECT_THAT(
        std::filesystem::read_symlink(PINS + "/left_out_TesuBpfDefineset_tracepoint_kmem_rss_stat"),
        HasSubstr("rss_stat/format: No such file or directory"));
    EXPECT_THAT(load(options), HasSubstr("already loaded"));  // all that this kernel takes
}

TEST_F(LoaderTest, FailsAsAWhole) {
    LoadOptions options;
    options.findLayout = [] {
        KernelLayout layout = FindKernelLayout();
        for (const char* program :
             {"tracepoint_sched_sched_process_exit", "tracepoint_cgroup_cgroup_attach_task",
              "kprobe_enter_dma_buf_file_release", "kprobe_enter_dma_buf_stats_setup"}) {
            layout.unusable[program] = "taken away";
        }
        return layout;
    };
    EXPECT_THAT(load(options, LOADER_FAILED),
                AllOf(HasSubstr("TesuBpfDefineset: 5 programs"),
                      HasSubstr("TesuBpfGplDefineset: no program can be loaded")));
    EXPECT_FALSE(std::filesystem::exists(PINS));
    EXPECT_FALSE(std::filesystem::exists(STAGING));

    const TempDir disk;
    options.pinDir = disk.path("tesu");
    EXPECT_THAT(load(options, LOADER_FAILED), HasSubstr(" is not on a bpf file system"));
}

TEST_F(LoaderTest, GuessesWhatTheTypeInformationSays) {
    const KernelLayout typed = FindKernelLayout();
    EXPECT_TRUE(typed.values.hasAtomicAdd == 1 || typed.values.pointerSize == 4);
    const KernelLayout guessed = FindKernelLayout(TRACEFS_ROOT, "/nonexistent");
    EXPECT_THAT(guessed.memberSource, HasSubstr("offset guessing")) << guessed.memberProblem;
    if (typed.memberSource != guessed.memberSource) {  // where there is type information
        EXPECT_EQ(std::memcmp(&guessed.values, &typed.values, sizeof(typed.values)), 0);
    }
    const std::string wrong = TESUBPF_TEST_DATA "/../fuzz/corpus/type_information/";
    EXPECT_THAT(FindKernelLayout(TRACEFS_ROOT, wrong + "holds-itself").memberSource,
                HasSubstr("task_struct: a structure without end"));
    EXPECT_THAT(FindKernelLayout(TRACEFS_ROOT, wrong + "name-nowhere").memberSource,
                HasSubstr("task_struct: a member whose name is nowhere"));
}

}  // namespace
}  // namespace Tesu::Bpf
