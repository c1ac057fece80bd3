// SPDX-License-Identifier: Apache-2.0
#include "tests/support/sandbox.h"

#include <bpf/bpf.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string>

#include "records/contract.h"

namespace {

// What is missing for a sandbox; empty: the process is in one.
std::string missing = "not entered";

// Before any thread is made, which would stay in the name spaces of the machine.
std::string EnterSandbox() {
    mkdir("/data", 0755);  // stays behind, empty
    if (unshare(CLONE_NEWNS | CLONE_NEWNET) != 0 ||
        mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("none", "/data", "tmpfs", 0, nullptr) != 0) {
        return std::string("no name spaces or mounts: ") + strerror(errno);
    }
    std::filesystem::create_directories(std::filesystem::path(Tesu::Bpf::DUMP_DIR).parent_path());
    return {};
}

std::string MountKernel() {
    uint32_t firstProgram = 0;
    // ENOSYS: a user-mode emulator. EBUSY: it is there.
    if ((bpf_prog_get_next_id(0, &firstProgram) != 0 && errno == ENOSYS) ||
        mount("none", "/sys/fs/bpf", "bpf", 0, nullptr) != 0 ||
        (mount("none", "/sys/kernel/tracing", "tracefs", 0, nullptr) != 0 && errno != EBUSY)) {
        return std::string("no eBPF or its file systems: ") + strerror(errno);
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
