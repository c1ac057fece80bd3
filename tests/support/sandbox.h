// SPDX-License-Identifier: Apache-2.0
//
// A place of its own for a test program: name spaces for mounts and network, which go with the
// process. Its tests meet no daemon, pins, sockets or dumps of the machine and leave none behind.
// sandbox.cpp has the main() that enters it.
#pragma once

#include <gtest/gtest.h>

// Needs no kernel of its own: also runs in the user-mode emulator. /data is an empty file system
// but for the folder that DUMP_DIR is made in. Skips, with the reason, without the privileges.
class SandboxTest : public testing::Test {
  protected:
    void SetUp() override;
};

// With eBPF: /sys/fs/bpf is an empty bpf file system, the tracing file system is mounted. Skips,
// with the reason, where there is no eBPF.
class KernelTest : public SandboxTest {
  protected:
    void SetUp() override;
};
