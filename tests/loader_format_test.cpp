// SPDX-License-Identifier: Apache-2.0
//
// What the loader reads from the kernel, and how it finds what the kernel does not tell.
#include <gtest/gtest.h>

#include <cstring>
#include <map>

#include "loader/kernel_layout_finder.h"
#include "loader/libbpf_log.h"
#include "loader/load_set.h"
#include "loader/task_probe.h"
#include "loader/tracepoint_format.h"

namespace Tesu::Bpf {
namespace {

constexpr const char* COMMON_FIELDS = R"(format:
	field:unsigned short common_type;	offset:0;	size:2;	signed:0;
	field:unsigned char common_flags;	offset:2;	size:1;	signed:0;
	field:unsigned char common_preempt_count;	offset:3;	size:1;	signed:0;
	field:int common_pid;	offset:4;	size:4;	signed:1;

)";

struct RssSample {
    const char* kernel;
    const char* fields;
    uint32_t offset;
    uint32_t size;
};

TEST(TracepointFormatTest, FindsTheSameFieldOnEveryKernel) {
    const RssSample samples[] = {
        {"6.1 amd64",
         "\tfield:unsigned int mm_id;\toffset:8;\tsize:4;\tsigned:0;\n"
         "\tfield:unsigned int curr;\toffset:12;\tsize:4;\tsigned:0;\n"
         "\tfield:int member;\toffset:16;\tsize:4;\tsigned:1;\n"
         "\tfield:long size;\toffset:24;\tsize:8;\tsigned:1;\n\n"
         "print fmt: \"mm_id=%u curr=%d\", REC->mm_id, REC->curr\n",
         24, 8},
        {"6.1 arm",
         "\tfield:unsigned int mm_id;\toffset:8;\tsize:4;\tsigned:0;\n"
         "\tfield:unsigned int curr;\toffset:12;\tsize:4;\tsigned:0;\n"
         "\tfield:int member;\toffset:16;\tsize:4;\tsigned:1;\n"
         "\tfield:long size;\toffset:20;\tsize:4;\tsigned:1;\n\n"
         "print fmt: \"mm_id=%u curr=%d\", REC->mm_id, REC->curr\n",
         20, 4},
    };
    for (const RssSample& sample : samples) {
        SCOPED_TRACE(sample.kernel);
        TracepointFormat format;
        std::string error;
        ASSERT_TRUE(ParseTracepointFormat(
            std::string("name: rss_stat\nID: 646\n") + COMMON_FIELDS + sample.fields, &format,
            &error))
            << error;
        const TracepointField* const size = FindField(format, "size");
        ASSERT_NE(size, nullptr);
        EXPECT_EQ(size->type, "long");
        EXPECT_EQ(size->offset, sample.offset);
        EXPECT_EQ(size->size, sample.size);
        EXPECT_TRUE(size->isSigned);
        EXPECT_EQ(format.size(), 8U);
        EXPECT_EQ(FindField(format, "mm"), nullptr);
    }
}

TEST(TracepointFormatTest, TellsArraysFromLocatedStrings) {
    TracepointFormat format;
    std::string error;
    ASSERT_TRUE(ParseTracepointFormat(
        "\tfield:char parent_comm[16];\toffset:8;\tsize:16;\tsigned:0;\n"
        "\tfield:__data_loc char[] child_comm;\toffset:16;\tsize:4;\tsigned:0;\n"
        "\tfield:bool group_dead;\toffset:32;\tsize:1;\tsigned:0;\n",
        &format, &error));
    const TracepointField* const parent = FindField(format, "parent_comm");
    const TracepointField* const child = FindField(format, "child_comm");
    ASSERT_NE(parent, nullptr);
    ASSERT_NE(child, nullptr);
    EXPECT_FALSE(parent->isLocated);
    EXPECT_EQ(parent->size, 16U);
    EXPECT_TRUE(child->isLocated);
    EXPECT_EQ(child->offset, 16U);
    EXPECT_EQ(FindField(format, "group_dead")->size, 1U);
}

TEST(TracepointFormatTest, RefusesWhatIsNoFormat) {
    TracepointFormat format;
    std::string error;
    EXPECT_FALSE(ParseTracepointFormat("", &format, &error));
    EXPECT_EQ(error, "no fields");
    for (const char* line : {"field:int pid;", "field:pid; offset:8; size:4; signed:1;",
                             "field:int pid; offset:x; size:4; signed:1;",
                             "field:int pid; offset:8; size:4x; signed:1;"}) {
        EXPECT_FALSE(ParseTracepointFormat(line, &format, &error)) << line;
        EXPECT_NE(error.find(line), std::string::npos) << error;
    }
}

TEST(LibbpfLogTest, FindsTheRefusedProgramAndTheVerdict) {
    const RefusedProgram refused = FindRefusedProgram(
        "libbpf: prog 'kprobe_one': BPF program load failed: Permission denied\n"
        "libbpf: prog 'kprobe_one': -- BEGIN PROG LOAD LOG --\n"
        "0: (79) r1 = *(u64 *)(r1 +8)\n"
        "invalid bpf_context access off=8 size=8\n"
        "processed 1 insns (limit 1000000) max_states_per_insn 0\n"
        "-- END PROG LOAD LOG --\n"
        "libbpf: prog 'kprobe_one': failed to load: -13\n"
        "libbpf: failed to load object 'x.bpf.o'\n");
    EXPECT_EQ(refused.name, "kprobe_one");
    EXPECT_EQ(refused.reason, "Permission denied (invalid bpf_context access off=8 size=8)");

    const RefusedProgram map = FindRefusedProgram(
        "libbpf: Error in bpf_create_map_xattr(m):Operation not permitted(-1)\n"
        "libbpf: failed to load object 'x.bpf.o'\n");
    EXPECT_EQ(map.name, "");
    EXPECT_EQ(map.reason, "Error in bpf_create_map_xattr(m):Operation not permitted(-1)");
    EXPECT_EQ(FindRefusedProgram("").reason, "");
}

TEST(RingSizeTest, TakesPowersOfTwoInPages) {
    std::string error;
    EXPECT_TRUE(IsRingSize(4096, 4096, &error));
    EXPECT_TRUE(IsRingSize(uint64_t{1} << 31, 4096, &error));
    for (const uint64_t size : {uint64_t{0}, uint64_t{2048}, uint64_t{12288}, uint64_t{1} << 32}) {
        EXPECT_FALSE(IsRingSize(size, 4096, &error)) << size;
        EXPECT_NE(error.find(std::to_string(size)), std::string::npos);
    }
}

// A kernel's memory as the probe sees it: tasks with their members at 4-byte pointers' distances.
class ProbeTest : public testing::Test {
  protected:
    static constexpr uint32_t TASK_BYTES = 1024;
    static constexpr uint32_t PID = 400;
    static constexpr uint32_t REAL_PARENT = 412;
    static constexpr uint32_t LEADER = 436;
    static constexpr uint32_t COMM = 600;
    static constexpr uint32_t SIGNAL = 640;

    void SetUp() override {
        layout = UnknownLayout();
        layout.pointerSize = 4;
        samples = {sample(0x1000, 70, 72, 3, "one", 0x400040),
                   sample(0x4000, 90, 95, 6, "other", 0x400140)};
    }

    void put(uint32_t address, uint32_t value) { words[address] = value; }

    // A process of a leader and the thread that is looked at, and their parent of process id 9.
    TaskSample sample(uint32_t base, int32_t pid, int32_t tid, int32_t threads,
                      const std::string& comm, uint32_t flags) {
        const uint32_t parent = 0x100000;
        const uint32_t leader = base + 0x1000;
        const uint32_t signal = base + 0x2000;
        put(parent + PID, 9);
        put(parent + PID + 4, 9);
        put(leader + PID, pid);
        put(leader + PID + 4, pid);
        put(signal + 4, threads);
        put(signal + 8, threads);
        put(base + 16, flags);
        put(base + PID, tid);
        put(base + PID + 4, pid);
        put(base + REAL_PARENT, parent);
        put(base + REAL_PARENT + 4, parent);
        put(base + LEADER, leader);
        put(base + SIGNAL, signal);
        TaskSample result;
        result.bytes = read(base, TASK_BYTES);
        std::strcpy(reinterpret_cast<char*>(&result.bytes[COMM]), comm.c_str());
        result.pid = pid;
        result.tid = tid;
        result.parentPid = 9;
        result.flags = flags;
        result.threads = threads;
        result.comm = comm;
        return result;
    }

    std::vector<uint8_t> read(uint64_t address, uint32_t size) const {
        std::vector<uint8_t> bytes(size);
        for (uint32_t i = 0; i + 4 <= size; i += 4) {
            const auto word = words.find(address + i);
            if (word != words.end()) {
                std::memcpy(&bytes[i], &word->second, 4);
            }
        }
        return bytes;
    }

    bool find() {
        return FindMembersInSamples(
            samples, [this](uint64_t address, uint32_t size) { return read(address, size); },
            &layout, &error);
    }

    std::map<uint64_t, uint32_t> words;
    std::vector<TaskSample> samples;
    TesuKernelLayout layout{};
    std::string error;
};

TEST_F(ProbeTest, FindsMembersOfA32BitKernel) {
    ASSERT_TRUE(find()) << error;
    EXPECT_EQ(layout.taskTgid, PID + 4);
    EXPECT_EQ(layout.taskRealParent, uint32_t{REAL_PARENT});
    EXPECT_EQ(layout.taskGroupLeader, uint32_t{LEADER});
    EXPECT_EQ(layout.taskComm, uint32_t{COMM});
    EXPECT_EQ(layout.taskSignal, uint32_t{SIGNAL});
    EXPECT_EQ(layout.signalLive, 4U);
    EXPECT_EQ(layout.taskFlags, 16U);
}

TEST_F(ProbeTest, GivesUpOnWhatIsNotUnique) {
    // A second pair of the same ids, in both samples.
    for (TaskSample& sample : samples) {
        std::memcpy(&sample.bytes[800], &sample.bytes[PID], 8);
    }
    EXPECT_FALSE(find());
    EXPECT_EQ(error, "task_struct.pid: 2 places match");

    // In one of them alone it is a chance match, and does not count.
    std::memset(&samples[1].bytes[800], 0, 8);
    EXPECT_TRUE(find()) << error;
}

TEST_F(ProbeTest, GivesUpWhenSamplesAreCutShort) {
    samples[0].bytes.resize(COMM);
    EXPECT_FALSE(find());
    EXPECT_EQ(error, "task_struct.comm: 0 places match");
}

}  // namespace
}  // namespace Tesu::Bpf
