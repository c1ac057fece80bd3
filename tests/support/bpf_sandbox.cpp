// SPDX-License-Identifier: Apache-2.0
#include "tests/support/bpf_sandbox.h"

#include <bpf/bpf.h>
#include <linux/magic.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace Tesu::Bpf {

namespace {

constexpr const char* TRACING = "/sys/kernel/tracing";

bool Fail(const char* what, std::string* reason) {
    *reason = std::string(what) + ": " + strerror(errno);
    return false;
}

bool IsTracingMounted() {
    struct statfs fs = {};
    return statfs(TRACING, &fs) == 0 && static_cast<uint32_t>(fs.f_type) == TRACEFS_MAGIC;
}

}  // namespace

bool EnterBpfSandbox(std::string* reason) {
    if (geteuid() != 0) {
        *reason = "needs root";
        return false;
    }
    // Not there in a user-mode emulator.
    uint32_t firstProgram = 0;
    if (bpf_prog_get_next_id(0, &firstProgram) != 0 && errno == ENOSYS) {
        return Fail("no bpf()", reason);
    }
    if (unshare(CLONE_NEWNS | CLONE_NEWNET) != 0) {
        return Fail("no name spaces", reason);
    }
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        return Fail("mounts stay shared", reason);
    }
    if (mount("bpf", "/sys/fs/bpf", "bpf", 0, nullptr) != 0) {
        return Fail("no bpf file system", reason);
    }
    if (!IsTracingMounted() && mount("none", TRACING, "tracefs", 0, nullptr) != 0) {
        return Fail("no tracing file system", reason);
    }
    return true;
}

}  // namespace Tesu::Bpf
