// SPDX-License-Identifier: Apache-2.0
//
// The real daemon, and what can be seen of it from outside.
#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "tests/support/child_process.h"

namespace Tesu::Bpf {

// What no program writes: waiting for it reads what there is.
inline constexpr const char* NEVER = "\x01";

// What does not hold is printed and remembered.
void Check(bool holds, const std::string& what);
int FailedChecks();

// Ends with its driver, however that ends.
std::vector<std::string> Bound(std::vector<std::string> command);

// Used by one thread.
class Daemon {
  public:
    // Returns when it serves and every class of events is on.
    explicit Daemon(std::vector<std::string> command = {TESUBPFD_PATH});

    void sendSignal(int signal) const { process.sendSignal(signal); }
    // Of its memory: "Rss:" or "Pss:".
    int64_t kib(const std::string& what) const;
    // Memory in KiB ("rss", "pss"), "threads", and "descriptors" without those of its clients.
    nlohmann::json footprint();
    // What `tesubpf status` says, which must come within a second; nothing when it does not.
    nlohmann::json status();
    // The same where it may be refused; why, if it was.
    static std::optional<nlohmann::json> askStatus(std::string* error);
    // Ends it with a signal; that its status and its log are as they should be is checked.
    void end(int signal, int expectedStatus);

  private:
    ChildProcess process;
};

}  // namespace Tesu::Bpf
