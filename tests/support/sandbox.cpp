// SPDX-License-Identifier: Apache-2.0
#include "tests/support/sandbox.h"

#include <bpf/bpf.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string>

#include "records/contract.h"

namespace {

// What is missing for a sandbox; empty: the process is in one.
std::string missing = "not entered";

std::string Failure(const char* what) {
    return std::string(what) + ": " + strerror(errno);
}

// Before any thread is made, which would stay in the name spaces of the machine.
std::string EnterSandbox() {
    if (unshare(CLONE_NEWNS | CLONE_NEWNET) != 0) {
        return Failure("no name spaces");
    }
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        return Failure("mounts stay shared");
    }
    mkdir("/data", 0755);  // stays behind, empty
    if (mount("none", "/data", "tmpfs", 0, nullptr) != 0) {
        return Failure("no file system on /data");
    }
    std::filesystem::create_directories(std::filesystem::path(Tesu::Bpf::DUMP_DIR).parent_path());
    return {};
}

std::string MountKernel() {
    uint32_t firstProgram = 0;
    if (bpf_prog_get_next_id(0, &firstProgram) != 0 && errno == ENOSYS) {
        return Failure("no bpf()");  // a user-mode emulator
    }
    if (mount("none", "/sys/fs/bpf", "bpf", 0, nullptr) != 0) {
        return Failure("no bpf file system");
    }
    // EBUSY: it is there.
    if (mount("none", "/sys/kernel/tracing", "tracefs", 0, nullptr) != 0 && errno != EBUSY) {
        return Failure("no tracing file system");
    }
    return {};
}

}  // namespace

void SandboxTest::SetUp() {
    if (!missing.empty()) {
        GTEST_SKIP() << missing;
    }
}

void KernelTest::SetUp() {
    SandboxTest::SetUp();
    if (const std::string reason = IsSkipped() ? "" : MountKernel(); !reason.empty()) {
        GTEST_SKIP() << reason;
    }
}

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    if (!GTEST_FLAG_GET(list_tests)) {
        missing = EnterSandbox();
    }
    return RUN_ALL_TESTS();
}
