// SPDX-License-Identifier: Apache-2.0
//
// The real daemon under load for a long time, with clients that come, go and stop reading, and with
// things going wrong around it. Expects the programs to be loaded and no daemon to run;
// tests/system/soak sees to both.
#include <gtest/gtest.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <iostream>
#include <random>
#include <regex>

#include "bench/delivery/load.h"
#include "bench/delivery/wire.h"
#include "bench/soak/daemon.h"
#include "bench/soak/episodes.h"

namespace Tesu::Bpf {
namespace {

using namespace std::chrono_literals;
using std::chrono::steady_clock;

constexpr size_t MORTALS = 3;
// What the daemon's memory may move by.
constexpr int64_t ALLOWANCE_KIB = 8192;

// Records with numbers that rise. Used by one thread.
struct Injection {
    void resume() {
        thread = std::jthread([this](const std::stop_token& stop) {
            while (!stop.stop_requested()) {
                const auto [newlySent, newlyRefused] = Inject(
                    injector, {.rate = rate, .duration = 100ms, .firstNumber = 1 + sent + refused});
                sent += newlySent;
                refused += newlyRefused;
            }
        });
    }
    // Returns when nothing is put into the ring any more: then the figures may be read.
    void pause() { thread = {}; }

    uint64_t rate;  // records a second
    uint64_t sent = 0;
    uint64_t refused = 0;
    RecordInjector injector{RING_CORE};
    std::jthread thread{};
};

// Clients that do not behave: one that is stopped again and again, others that are killed, each
// replaced by a new one. And processes that come and go.
class Crowd {
  public:
    // Once a second.
    void step() {
        stopped.sendSignal(second++ % 65 < 5 ? SIGCONT : SIGSTOP);
        mortals[random() % MORTALS].emplace(Bound({CLIENTS_PATH, "ours", "1"}));
    }

  private:
    unsigned second = 0;
    std::minstd_rand random;
    ChildProcess forks{Bound({"/bin/sh", "-c", "while sleep 0.02; do /bin/true; done"})};
    ChildProcess stopped{
        Bound({"/bin/sh", "-c", "exec " TESUBPF_PATH " watch --type dmabuf-size >/dev/null"})};
    std::optional<ChildProcess> mortals[MORTALS];
};

// The account between one daemon and clients that keep up, which it has from its start.
class Round {
  public:
    // Nothing may be injected yet.
    Round(Daemon& server, Injection& load) : daemon(server), injection(load) {
        Check(WaitUntil([this] {
                  InjectProbe(injection.injector);
                  return readers.waitForOutput(CLIENTS_ARE_READY, 5ms) &&
                         daemon.status().dump().find("50005") != std::string::npos;
              }),
              "no clients");
    }

    // Interrupts the load: every sum must add up.
    nlohmann::json check(const std::string& when) {
        daemon.status();  // under load
        injection.pause();
        InjectEnd(injection.injector);
        const uint64_t newlySent = injection.sent - sent;
        const uint64_t newlyLost = LostRecords(RING_CORE) - lost;
        const std::string total = std::to_string(LostRecords(RING_CORE));
        // Each reader tells how many it has, how many out of order, and when it knew.
        const std::regex all("(\n" + std::to_string(newlySent) + " 0 [0-9]+){3}\n");
        const auto haveAll = [&] {
            readers.waitForOutput(NEVER, 20ms);
            return std::regex_search(readers.output, all);
        };
        Check(WaitUntil(haveAll, 20s), when + ": the readers have " + readers.output);
        Check(newlyLost == 0 || losses.waitForOutput("\"total\":" + total + "}"),
              when + ": clients were told " + losses.output);
        Check(newlyLost >= injection.refused - refused &&
                  daemon.status()["rings"][0]["lost"] == LostRecords(RING_CORE),
              when + ": losses are not counted");
        nlohmann::json footprint = daemon.footprint();
        std::cout << when << ": " << newlySent << " injected, " << newlyLost << " lost, "
                  << footprint << std::endl;
        injection.resume();
        return footprint;
    }

  private:
    Daemon& daemon;
    Injection& injection;
    const uint64_t sent = injection.sent;  // these when it began
    const uint64_t refused = injection.refused;
    const uint64_t lost = LostRecords(RING_CORE);
    ChildProcess readers{Bound({CLIENTS_PATH, "ours", "3", "--go-on"})};
    ChildProcess losses{Bound({TESUBPF_PATH, "watch", "--type", "records-lost", "--json"})};
};

void RunMinutes(int minutes, Daemon& daemon, Injection& injection) {
    Round round(daemon, injection);
    injection.resume();
    Crowd crowd;
    nlohmann::json first;
    nlohmann::json last;
    for (int minute = 1; minute <= minutes; ++minute) {
        const auto end = steady_clock::now() + 60s;
        for (int next = 2 * minute; minute > 1 && next < 2 * minute + 2; ++next) {
            EPISODES[next % EPISODE_COUNT](daemon);
        }
        for (; steady_clock::now() < end; std::this_thread::sleep_for(1s)) {
            crowd.step();
        }
        last = round.check("minute " + std::to_string(minute));
        first = minute == 1 ? last : first;
    }
    for (const auto& [what, value] : last.items()) {
        const int64_t allowance = what == "rss" || what == "pss" ? ALLOWANCE_KIB : 0;
        Check(value <= first[what].get<int64_t>() + allowance, "the daemon needs more " + what);
    }
}

// Under load: what waited in the ring meanwhile counts as lost, and then counting begins anew.
void Restart(Daemon& daemon, Injection& injection) {
    daemon.end(SIGKILL, 128 + SIGKILL);
    const uint64_t before = LostRecords(RING_CORE);
    Daemon heir;
    injection.pause();
    Check(LostRecords(RING_CORE) > before, "what waited for the new daemon is not counted");
    WaitUntil([&] { return heir.status()["rings"][0]["lost"] == LostRecords(RING_CORE); });
    Round round(heir, injection);
    injection.resume();
    std::this_thread::sleep_for(10s);
    round.check("afterwards");
    heir.end(SIGTERM, 0);
}

void Run(int minutes, uint64_t rate) {
    Injection injection{.rate = rate};
    Daemon daemon;
    RunMinutes(minutes, daemon, injection);
    Restart(daemon, injection);
    ExhaustMemory();
    LimitMemory();
    injection.pause();
    std::cout << "\nminutes                " << minutes << "\nrecords injected       "
              << injection.sent << "\nrefused by a full ring " << injection.refused
              << "\nchecks failed          " << FailedChecks() << std::endl;
}

}  // namespace
}  // namespace Tesu::Bpf

int main(int argc, char** argv) try {
    CLI::App app("Runs the daemon for a long time and checks that every sum adds up", "soak");
    int minutes = 60;
    uint64_t rate = 280000;
    app.add_option("--minutes", minutes, "Of load; a minute comes on top");
    app.add_option("--rate", rate, "Records a second");
    CLI11_PARSE(app, argc, argv);
    // The tests' support tells what fails as a test would.
    GTEST_FLAG_SET(throw_on_failure, true);
    Tesu::Bpf::Run(minutes, rate);
    return Tesu::Bpf::FailedChecks() == 0 ? 0 : 1;
} catch (const std::exception& error) {
    std::cerr << "soak: " << error.what() << std::endl;
    return 1;
}
