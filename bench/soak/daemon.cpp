// SPDX-License-Identifier: Apache-2.0
#include "bench/soak/daemon.h"

#include <csignal>
#include <fstream>
#include <iostream>
#include <regex>
#include <sstream>

#include "proc/process_snapshot.h"
#include "tests/support/pinned_rings.h"

namespace Tesu::Bpf {

namespace {

using namespace std::chrono_literals;
using std::chrono::steady_clock;

// What the log may say in each line; the second row is of a kernel without kprobes.
const std::regex EXPECTED_LINE(
    " I |too slow|Cannot allocate memory|fd does not exist|No space left|were "
    "(lost|dropped)|ringbuff full|avail|Stop|"
    "kprobe_events|kprobe prog failed|Attach all|open_fd_caller_map");
const nlohmann::json NO_STATUS = {{"clients", {}}, {"rings", {{{"lost", -1}}}}};

int failed = 0;

}  // namespace

void Check(bool holds, const std::string& what) {
    if (!holds) {
        ++failed;
        std::cout << "FAILED: " << what << std::endl;
    }
}

int FailedChecks() {
    return failed;
}

std::vector<std::string> Bound(std::vector<std::string> command) {
    command.insert(command.begin(), {"setpriv", "--pdeathsig", "KILL"});
    return command;
}

Daemon::Daemon(std::vector<std::string> command) : process(Bound(std::move(command))) {
    Check(process.waitForOutput("serving") && WaitUntil([] { return IsEnabled(RING_CORE); }),
          "the daemon does not serve: " + process.error);
}

int64_t Daemon::kib(const std::string& what) const {
    std::ifstream file("/proc/" + std::to_string(process.pid()) + "/smaps_rollup");
    int64_t kib = 0;
    for (std::string word; file >> word && (word != what || !(file >> kib));) {
    }
    return kib;
}

nlohmann::json Daemon::footprint() {
    // Its log would fill the pipe.
    process.waitForOutput(NEVER, 20ms);
    const auto clients = static_cast<int64_t>(status()["clients"].size());
    const auto seen = ProcReader().read(process.pid()).value_or(ProcessSnapshot());
    return {{"rss", kib("Rss:")},
            {"pss", kib("Pss:")},
            {"threads", seen.threads},
            {"descriptors", seen.openFds.value_or(0) - clients}};
}

nlohmann::json Daemon::status() {
    const auto start = steady_clock::now();
    std::string error;
    const auto answer = askStatus(&error);
    Check(answer.has_value(), "tesubpf status fails: " + error);
    Check(steady_clock::now() - start < 1s, "tesubpf status takes long");
    return answer.value_or(NO_STATUS);
}

std::optional<nlohmann::json> Daemon::askStatus(std::string* error) {
    ChildProcess client({TESUBPF_PATH, "status", "--json"});
    if (client.waitForExit() == 0) {
        return nlohmann::json::parse(client.output);
    }
    *error = client.error;
    return std::nullopt;
}

void Daemon::end(int signal, int expectedStatus) {
    process.sendSignal(SIGCONT);
    process.sendSignal(signal);
    const int status = process.waitForExit().value_or(-1);
    Check(status == expectedStatus, "the daemon ended with status " + std::to_string(status));
    std::istringstream log(process.error);
    for (std::string line; std::getline(log, line);) {
        Check(std::regex_search(line, EXPECTED_LINE), "the daemon logs: " + line);
    }
}

}  // namespace Tesu::Bpf
