// SPDX-License-Identifier: Apache-2.0
#include "bench/soak/episodes.h"

#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <thread>
#include <utility>

#include "records/contract.h"
#include "records/raw_event.h"
#include "tests/support/wire_client.h"

namespace Tesu::Bpf {

namespace {

using namespace std::chrono_literals;
using std::this_thread::sleep_for;

constexpr int64_t MUTE_CLIENTS_LIMIT_KIB = 102400;
constexpr uint64_t GROUP_MEMORY_BYTES = 100 << 20;

// Where a group of processes has its memory limited, and by which file: cgroup v2, v1.
constexpr std::pair<const char*, const char*> MEMORY_GROUPS[] = {
    {"/sys/fs/cgroup/tesubpf_soak", "memory.max"},
    {"/sys/fs/cgroup/memory/tesubpf_soak", "memory.limit_in_bytes"}};

void CheckDump() {
    ChildProcess client({TESUBPF_PATH, "tasks"});
    Check(client.waitForExit() == 0, "no dump of the tasks: " + client.error);
}

// Clients of all that is injected and of what the kernel says, who never read.
std::vector<WireClient> MuteClients(size_t count) {
    std::vector<WireClient> clients(count);
    for (WireClient& client : clients) {
        Check(client.connectTo(SERVICE_SOCKET_NAME), "a mute client does not get connected");
        for (int32_t type = RAW_EVENT_RSS_STAT; type <= RAW_EVENT_FD_UPDATE; ++type) {
            client.sendBytes(WireClient::subscription(1, type));
        }
    }
    return clients;
}

void FillDisk(Daemon& daemon) {
    CheckDump();  // which makes the folder
    Check(mount("none", DUMP_DIR, "tmpfs", 0, "size=4k") == 0, "no small disk");
    daemon.sendSignal(DUMP_SIGNAL_TASKS);
    sleep_for(2s);
    umount2(DUMP_DIR, MNT_DETACH);
    CheckDump();
}

// For longer than the daemon takes between two looks at its pins.
void MakePinsReadOnly(Daemon& /*daemon*/) {
    Check(mount(nullptr, "/sys/fs/bpf", nullptr, MS_REMOUNT | MS_RDONLY, nullptr) == 0,
          "the pins cannot be made read-only");
    sleep_for(12s);
    mount(nullptr, "/sys/fs/bpf", nullptr, MS_REMOUNT, nullptr);
}

// Their memory is limited, and they are forgotten as soon as they end.
void ConnectMuteClients(Daemon& daemon) {
    const size_t before = daemon.status()["clients"].size();
    auto mute = MuteClients(200);
    int64_t most = 0;
    for (int i = 0; i < 100; ++i) {
        most = std::max(most, daemon.kib("Rss:"));
        sleep_for(40ms);
    }
    Check(most < MUTE_CLIENTS_LIMIT_KIB, "with them, KiB: " + std::to_string(most));
    mute.clear();
    Check(WaitUntil([&] { return daemon.status()["clients"].size() <= before; }, 2s),
          "mute clients are still there after their end");
}

// Until its ring is full.
void FreezeDaemon(Daemon& daemon) {
    daemon.sendSignal(SIGSTOP);
    sleep_for(3s);
    daemon.sendSignal(SIGCONT);
}

// Of the daemon and of all that the kernel keeps for it, what waits in sockets included. Empty:
// this machine cannot.
std::string MemoryGroup(uint64_t bytes) {
    for (const auto& [folder, file] : MEMORY_GROUPS) {
        std::error_code error;
        std::filesystem::create_directory(folder, error);
        const std::string limit = std::filesystem::path(folder) / file;
        if (std::filesystem::exists(limit, error) && std::ofstream(limit) << bytes << std::flush) {
            return folder;
        }
        rmdir(folder);
    }
    return {};
}

}  // namespace

void (*const EPISODES[EPISODE_COUNT])(Daemon& daemon) = {FillDisk, MakePinsReadOnly,
                                                         ConnectMuteClients, FreezeDaemon};

void ExhaustMemory() {
    Daemon daemon({"prlimit", "--as=314572800", TESUBPFD_PATH, "--property",
                   std::string(CLIENT_QUEUE_BYTES_PROPERTY) + "=0", "--property",
                   std::string(QUEUE_BYTES_PROPERTY) + "=0"});
    auto mute = MuteClients(20);
    std::string error;  // there may be no memory for the answer
    Check(WaitUntil([&] {
              const auto status = Daemon::askStatus(&error);
              return status && (*status)["clients"].size() < mute.size();
          }),
          "no mute client is sent away where memory has run out: " + error);
    mute.clear();
    CheckDump();
    daemon.status();
    daemon.end(SIGTERM, 0);
}

void LimitMemory() {
    const std::string group = MemoryGroup(GROUP_MEMORY_BYTES);
    if (group.empty()) {
        std::cout << "no memory controller: not tried under its limit" << std::endl;
        return;
    }
    Daemon daemon({"/bin/sh", "-c", "echo $$ >" + group + "/cgroup.procs && exec " TESUBPFD_PATH});
    ConnectMuteClients(daemon);
    daemon.end(SIGTERM, 0);
    rmdir(group.c_str());
}

}  // namespace Tesu::Bpf
