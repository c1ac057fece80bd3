// SPDX-License-Identifier: Apache-2.0
//
// The loader on the running kernel: what it pins, when it loads anew, what it says when it cannot.
#include <android-base/file.h>
#include <bpf/bpf.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <sstream>

#include "loader/kernel_peek.h"
#include "records/contract.h"
#include "tests/support/pins.h"
#include "tests/support/sandbox.h"

namespace Tesu::Bpf {
namespace {

using testing::AllOf;
using testing::Contains;
using testing::HasSubstr;
using testing::IsEmpty;

LayoutSources BuiltSources() {
    LayoutSources sources;
    sources.peekObject = BuiltObjectDir() + "/" + TASK_PEEK_OBJECT;
    return sources;
}

class LoaderTest : public KernelTest {
  protected:
    void TearDown() override { unload(); }

    LoaderStatus load(const LoadOptions& options = BuiltObjects()) {
        out.str("");
        err.str("");
        return LoadSet(options, out, err);
    }

    LoaderStatus unload(const std::string& dir = PIN_DIR) {
        out.str("");
        err.str("");
        return UnloadSet(dir, out, err);
    }

    // Tells the two loads of a map apart.
    static uint32_t ringMapId() {
        bpf_map_info info = {};
        uint32_t size = sizeof(info);
        bpf_obj_get_info_by_fd(OpenPinnedMap(PinnedRing::CORE, "ringbuf_map").get(), &info, &size);
        return info.id;
    }

    static std::string pinPath(const std::string& name) {
        return std::string(PIN_DIR) + "/" + name;
    }

    std::ostringstream out;
    std::ostringstream err;
};

TEST_F(LoaderTest, PinsOnceAndUnloads) {
    EXPECT_EQ(unload(), LOADER_DONE);
    EXPECT_THAT(out.str(), HasSubstr("nothing is loaded"));

    ASSERT_EQ(load(), LOADER_DONE) << err.str();
    EXPECT_THAT(err.str(), IsEmpty());
    EXPECT_THAT(out.str(), AllOf(HasSubstr("TesuBpfDefineset: 6 programs"),
                                 HasSubstr("ring buffer of 4194304 bytes"),
                                 HasSubstr("TesuBpfGplDefineset: 4 programs"),
                                 HasSubstr("ring buffer of 1048576 bytes")));
    const uint32_t first = ringMapId();
    const std::vector<std::string> pins = ListPins(PIN_DIR);
    for (const char* pin :
         {"prog_TesuBpfDefineset_tracepoint_sched_sched_switch",
          "prog_TesuBpfDefineset_tracepoint_sched_sched_process_exit",
          "prog_TesuBpfDefineset_tracepoint_sched_sched_process_fork",
          "prog_TesuBpfDefineset_tracepoint_kmem_rss_stat",
          "prog_TesuBpfDefineset_kprobe_enter_fd_install",
          "prog_TesuBpfDefineset_kprobe_return_filp_close",
          "prog_TesuBpfGplDefineset_tracepoint_sched_sched_process_exit",
          "prog_TesuBpfGplDefineset_tracepoint_cgroup_cgroup_attach_task",
          "prog_TesuBpfGplDefineset_kprobe_enter_dma_buf_file_release",
          "prog_TesuBpfGplDefineset_kprobe_enter_dma_buf_stats_setup",
          "map_TesuBpfDefineset_ringbuf_current", "map_TesuBpfGplDefineset_ringbuf_current",
          "map_TesuBpfDefineset_ringbuf_map", "map_TesuBpfDefineset_ringbuf_status",
          "map_TesuBpfDefineset_open_fd_caller_map", "map_TesuBpfGplDefineset_ringbuf_map",
          "map_TesuBpfGplDefineset_ringbuf_status", "map_TesuBpfGplDefineset_dmabuf_allocate_map",
          "map_TesuBpfGplDefineset_dmabuf_size_map"}) {
        EXPECT_THAT(pins, Contains(pin));
    }

    LoadOptions other = BuiltObjects();
    other.ringBytes = 8192;
    other.pinDir = "/sys/fs/bpf//tesu/";
    EXPECT_EQ(load(other), LOADER_DONE);
    EXPECT_THAT(out.str(),
                AllOf(HasSubstr("already loaded"), HasSubstr("has 4194304 bytes, not 8192")));
    EXPECT_EQ(ringMapId(), first);

    EXPECT_EQ(unload(), LOADER_DONE);
    EXPECT_FALSE(std::filesystem::exists(PIN_DIR));
}

TEST_F(LoaderTest, LoadsAnIncompleteSetAnew) {
    LoadOptions options = BuiltObjects();
    options.ringBytes = 65536;
    ASSERT_EQ(load(options), LOADER_DONE) << err.str();
    EXPECT_THAT(out.str(), HasSubstr("ring buffer of 65536 bytes"));
    const uint32_t first = ringMapId();
    ASSERT_EQ(unlink(pinPath("prog_TesuBpfDefineset_tracepoint_kmem_rss_stat").c_str()), 0);
    // What a loader that was killed leaves behind.
    ASSERT_EQ(mkdir((std::string(PIN_DIR) + "_loading").c_str(), 0755), 0);

    ASSERT_EQ(load(), LOADER_DONE) << err.str();
    EXPECT_THAT(out.str(), AllOf(HasSubstr("incomplete set"), HasSubstr("kmem_rss_stat")));
    EXPECT_NE(ringMapId(), first);
    EXPECT_TRUE(OpenPin("prog_TesuBpfDefineset_tracepoint_kmem_rss_stat").ok());
    EXPECT_FALSE(std::filesystem::exists(std::string(PIN_DIR) + "_loading"));
}

TEST_F(LoaderTest, LeavesOutWhatTheKernelCannotTake) {
    // A kernel without the memory tracepoint, and with one whose fork tracepoint is unlike ours.
    TemporaryDir tracefs;
    const std::filesystem::path events = std::filesystem::path(tracefs.path) / "events";
    for (const char* name : {"sched/sched_switch", "sched/sched_process_exit",
                             "sched/sched_process_fork", "cgroup/cgroup_attach_task"}) {
        std::string format;
        ASSERT_TRUE(android::base::ReadFileToString(
            std::string(TRACEFS_ROOT) + "/events/" + name + "/format", &format));
        if (std::string(name) == "sched/sched_process_fork") {
            format.replace(format.find("child_pid"), 9, "child_tid");
        }
        std::filesystem::create_directories(events / name);
        ASSERT_TRUE(android::base::WriteStringToFile(format, events / name / "format"));
    }
    LoadOptions options = BuiltObjects();
    options.findLayout = [&](const LoadOptions&, LibbpfLog* log) {
        LayoutSources sources = BuiltSources();
        sources.tracefsRoot = tracefs.path;
        return FindKernelLayout(sources, log);
    };
    ASSERT_EQ(load(options), LOADER_DONE) << err.str();
    EXPECT_THAT(out.str(), HasSubstr("TesuBpfDefineset: 4 programs"));
    EXPECT_THAT(err.str(),
                AllOf(HasSubstr("program tracepoint_kmem_rss_stat: left out: "),
                      HasSubstr("rss_stat/format: No such file or directory"),
                      HasSubstr("program tracepoint_sched_sched_process_fork: left out: tracepoint "
                                "sched/sched_process_fork has no usable field child_pid")));
    EXPECT_FALSE(OpenPin("prog_TesuBpfDefineset_tracepoint_kmem_rss_stat").ok());
    std::string reason;
    EXPECT_TRUE(android::base::Readlink(
        pinPath("left_out_TesuBpfDefineset_tracepoint_kmem_rss_stat"), &reason));
    EXPECT_THAT(reason, HasSubstr("No such file or directory"));

    // Nothing is missing: this is all that the kernel takes.
    EXPECT_EQ(load(options), LOADER_DONE);
    EXPECT_THAT(out.str(), HasSubstr("already loaded"));
    EXPECT_EQ(unload(), LOADER_DONE);
    EXPECT_FALSE(std::filesystem::exists(PIN_DIR));
}

TEST_F(LoaderTest, LeavesOutAProgramThatTheKernelRefuses) {
    LoadOptions options = BuiltObjects();
    options.findLayout = [](const LoadOptions&, LibbpfLog* log) {
        KernelLayout layout = FindKernelLayout(BuiltSources(), log);
        layout.values.rssCurr = 0x40000000;  // farther than the verifier lets a pointer go
        return layout;
    };
    ASSERT_EQ(load(options), LOADER_DONE) << err.str();
    EXPECT_THAT(out.str(), AllOf(HasSubstr("TesuBpfDefineset: 5 programs"),
                                 HasSubstr("TesuBpfGplDefineset: 4 programs")));
    EXPECT_THAT(err.str(),
                AllOf(HasSubstr("program tracepoint_kmem_rss_stat: left out: "),
                      HasSubstr("(math between ctx pointer and 1073741824 is not allowed)")));
    EXPECT_FALSE(OpenPin("prog_TesuBpfDefineset_tracepoint_kmem_rss_stat").ok());
    EXPECT_TRUE(OpenPin("prog_TesuBpfDefineset_tracepoint_sched_sched_switch").ok());
}

TEST_F(LoaderTest, FailsAsAWhole) {
    LoadOptions options = BuiltObjects();
    options.findLayout = [](const LoadOptions&, LibbpfLog*) {
        KernelLayout layout;
        layout.values = UnknownLayout();
        for (const char* program :
             {"tracepoint_sched_sched_process_exit", "tracepoint_cgroup_cgroup_attach_task",
              "kprobe_enter_dma_buf_file_release", "kprobe_enter_dma_buf_stats_setup"}) {
            layout.unusable[program] = "taken away";
        }
        return layout;
    };
    EXPECT_EQ(load(options), LOADER_FAILED);
    EXPECT_THAT(err.str(), AllOf(HasSubstr("TesuBpfGplDefineset: no program can be loaded"),
                                 HasSubstr("nothing is loaded")));
    EXPECT_FALSE(std::filesystem::exists(PIN_DIR));

    options.findLayout = nullptr;
    options.ringBytes = 0;  // the kernel refuses such a map
    EXPECT_EQ(load(options), LOADER_FAILED);
    EXPECT_THAT(err.str(), HasSubstr("ringbuf_map"));
    EXPECT_FALSE(std::filesystem::exists(PIN_DIR));

    options = BuiltObjects();
    options.objectDir = "/nonexistent";
    EXPECT_EQ(load(options), LOADER_FAILED);
    EXPECT_THAT(err.str(), HasSubstr("/nonexistent/TesuBpfDefineset.bpf.o: No such file"));
}

TEST_F(LoaderTest, PinsOnlyInABpfFileSystem) {
    TemporaryDir dir;
    LoadOptions options = BuiltObjects();
    options.pinDir = std::string(dir.path) + "/tesu";
    EXPECT_EQ(load(options), LOADER_FAILED);
    EXPECT_THAT(err.str(), HasSubstr(std::string(dir.path) + " is not on a bpf file system"));
    EXPECT_EQ(unload(options.pinDir), LOADER_FAILED);
    options.pinDir = "/nonexistent/tesu";
    EXPECT_EQ(load(options), LOADER_FAILED);
    EXPECT_THAT(err.str(), HasSubstr("/nonexistent: No such file or directory"));
}

TEST_F(LoaderTest, KeepsFilesOfOthers) {
    ASSERT_EQ(load(), LOADER_DONE) << err.str();
    ASSERT_EQ(mkdir(pinPath("foreign").c_str(), 0755), 0);
    EXPECT_EQ(unload(), LOADER_FAILED);
    EXPECT_THAT(err.str(), HasSubstr("Directory not empty"));
    EXPECT_EQ(rmdir(pinPath("foreign").c_str()), 0);
}

TEST_F(LoaderTest, ProbingFindsWhatTheTypeInformationTells) {
    LibbpfLog log(false);
    LayoutSources sources = BuiltSources();
    sources.members = MemberSource::BTF;
    const KernelLayout told = FindKernelLayout(sources, &log);
    if (!told.memberProblem.empty()) {
        GTEST_SKIP() << told.memberProblem;
    }
    sources.members = MemberSource::PROBE;
    const KernelLayout probed = FindKernelLayout(sources, &log);
    ASSERT_THAT(probed.memberProblem, IsEmpty());
    EXPECT_EQ(probed.values.taskFlags, told.values.taskFlags);
    EXPECT_EQ(probed.values.taskTgid, told.values.taskTgid);
    EXPECT_EQ(probed.values.taskRealParent, told.values.taskRealParent);
    EXPECT_EQ(probed.values.taskGroupLeader, told.values.taskGroupLeader);
    EXPECT_EQ(probed.values.taskComm, told.values.taskComm);
    EXPECT_EQ(probed.values.taskSignal, told.values.taskSignal);
    EXPECT_EQ(probed.values.signalLive, told.values.signalLive);
    EXPECT_EQ(probed.values.inodeIno, told.values.inodeIno);
    EXPECT_EQ(probed.values.fileInode, told.values.fileInode);
    EXPECT_EQ(probed.values.dmaBufSize, told.values.dmaBufSize);

    // Without type information the loader probes by itself.
    sources.members = MemberSource::BTF_OR_PROBE;
    sources.btfPath = "/nonexistent";
    EXPECT_EQ(FindKernelLayout(sources, &log).memberSource, "probing");
}

}  // namespace
}  // namespace Tesu::Bpf
