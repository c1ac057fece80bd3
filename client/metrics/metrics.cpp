// SPDX-License-Identifier: Apache-2.0
#include "client/metrics/metrics.h"

#include <android-base/file.h>
#include <poll.h>
#include <prometheus/collectable.h>
#include <prometheus/exposer.h>
#include <prometheus/text_serializer.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <exception>
#include <memory>
#include <optional>
#include <utility>

#include "client/exit_status.h"
#include "client/live/live_processes.h"
#include "client/metrics/fleet_metrics.h"
#include "client/status/status_request.h"
#include "client/text/terminal_text.h"
#include "recording/connection_news.h"
#include "util/monotonic_clock.h"
#include "util/mutex.h"
#include "util/string_util.h"

namespace Tesu::Bpf {

namespace {

// Between two looks whether something is due, while there are events and without them.
constexpr int64_t LOOK_TIME = 250'000'000;
constexpr int64_t IDLE_LOOK_TIME = NANOSECONDS_PER_SECOND;
// Between two writings of the text file.
constexpr int64_t WRITE_TIME = 15 * NANOSECONDS_PER_SECOND;
// Between two surveys at most, so that names are forgotten although nobody asks.
constexpr int64_t SURVEY_TIME = 60 * NANOSECONDS_PER_SECOND;

// What the poll loop keeps current and whoever scrapes reads, from a thread of the server's.
class Fleet : public prometheus::Collectable {
  public:
    Fleet(const MetricsOptions& options, LiveProcesses live)
        : socketName(options.socketName),
          stream(live.descriptor()),
          live(std::move(live)),
          metrics(NamedFigures(options.maxNames, options.globs)) {}

    // Any thread.
    std::vector<prometheus::MetricFamily> Collect() const override EXCLUDES(mutex) {
        const MutexLock lock(mutex);
        survey(MonotonicNanoseconds());
        return metrics.families();
    }

    // The rest is the poll loop's.
    int descriptor() const { return stream; }
    void takeEvents() EXCLUDES(mutex);
    // Does what is due. Fails when /proc cannot be read.
    Result<> look() EXCLUDES(mutex);
    bool isLookUrgent() const EXCLUDES(mutex) {
        const MutexLock lock(mutex);
        return !live.isCurrent();
    }

  private:
    void survey(int64_t now) const REQUIRES(mutex) {
        if (live.isCurrent()) {
            metrics.survey(live.model, now);
            surveyTime = now;
        }
    }

    const std::string socketName;
    const int stream;  // borrowed from `live`
    bool isStatusDue = false;
    mutable Mutex mutex;
    LiveProcesses live GUARDED_BY(mutex);
    mutable FleetMetrics metrics GUARDED_BY(mutex);
    mutable int64_t surveyTime GUARDED_BY(mutex) = 0;
};

void Fleet::takeEvents() {
    const MutexLock lock(mutex);
    live.takeEvents([this](const tesubpf_event& item, const Event* record) REQUIRES(mutex) {
        metrics.take(item, record, live.model);
        isStatusDue = isStatusDue || item.kind == TESUBPF_SUBSCRIBED;
        if (const std::string news = DescribeNews(item, socketName); !news.empty()) {
            std::fprintf(stderr, "tesubpf: %s\n", EscapeForTerminal(news).c_str());
        }
    });
}

Result<> Fleet::look() {
    if (std::exchange(isStatusDue, false)) {
        // May wait for the service; a scrape must not. Without an answer losses are not known.
        const Result<StatusReport> report = RequestStatus(socketName);
        const MutexLock lock(mutex);
        if (report && metrics.isUp()) {
            metrics.takeStatus(*report);
        }
    }
    const MutexLock lock(mutex);
    Result<> advanced = live.advance();
    const int64_t now = MonotonicNanoseconds();
    if (now - surveyTime >= SURVEY_TIME) {
        survey(now);
    }
    return advanced;
}

// In one step: a collector never sees half of it.
Result<> ReplaceTextFile(const std::string& path, const Fleet& fleet) {
    const std::string beside = path + ".new";
    const std::string text = prometheus::TextSerializer().Serialize(fleet.Collect());
    if (!android::base::WriteStringToFile(text, beside) ||
        rename(beside.c_str(), path.c_str()) == -1) {
        Result<> failure = SystemFailure("cannot write " + path);
        unlink(beside.c_str());
        return failure;
    }
    return {};
}

// Keeps the fleet current until a signal comes.
Result<> Follow(Fleet* fleet, const std::string& textFile, const TerminationSignals& signals) {
    pollfd entries[] = {{.fd = signals.fd(), .events = POLLIN, .revents = 0},
                        {.fd = fleet->descriptor(), .events = POLLIN, .revents = 0}};
    int64_t lookDue = 0;
    int64_t lastLook = 0;
    int64_t writeDue = textFile.empty() ? INT64_MAX : 0;
    while (true) {
        const int64_t now = MonotonicNanoseconds();
        if (now >= lookDue) {
            if (Result<> looked = fleet->look(); !looked) {
                return looked;
            }
            lastLook = now;
            lookDue = now + IDLE_LOOK_TIME;
        }
        if (now >= writeDue) {
            if (Result<> written = ReplaceTextFile(textFile, *fleet); !written) {
                return written;
            }
            writeDue = now + WRITE_TIME;
        }
        // Rounded up.
        const int64_t wait = std::max<int64_t>(lookDue - now, 0);
        if (poll(entries, std::size(entries), static_cast<int>((wait + 999'999) / 1'000'000)) <=
            0) {
            continue;
        }
        if (entries[0].revents != 0) {
            return {};
        }
        fleet->takeEvents();
        lookDue = fleet->isLookUrgent() ? 0 : std::min(lookDue, lastLook + LOOK_TIME);
    }
}

// Only what says on which address: a port alone would be open to everybody.
bool IsAddress(const std::string& listen) {
    const size_t colon = listen.rfind(':');
    return colon != std::string::npos && colon > 0 && IsDigits(listen.substr(colon + 1)) &&
           listen.find_first_of(", ") == std::string::npos;
}

}  // namespace

int RunMetrics(const MetricsOptions& options, const TerminationSignals& signals) {
    if (options.listen.empty() == options.textFile.empty()) {
        return Fail(EXIT_USAGE, "metrics needs --listen or --textfile");
    }
    if (!options.listen.empty() && !IsAddress(options.listen)) {
        return Fail(EXIT_USAGE, "\"" + options.listen + "\" is no HOST:PORT");
    }
    Result<LiveProcesses> live = LiveProcesses::open(options.socketName, options.procRoot);
    if (!live) {
        return Fail(EXIT_FAILED, live.error());
    }
    const auto fleet = std::make_shared<Fleet>(options, std::move(*live));
    std::optional<prometheus::Exposer> exposer;
    if (!options.listen.empty()) {
        try {
            exposer.emplace(options.listen);
        } catch (const std::exception&) {
            return Fail(EXIT_FAILED, "cannot listen on " + options.listen);
        }
        exposer->RegisterCollectable(fleet);
        const std::string host = options.listen.substr(0, options.listen.rfind(':'));
        std::fprintf(stderr, "tesubpf: serving http://%s:%d/metrics\n", host.c_str(),
                     exposer->GetListeningPorts().front());
    }
    const Result<> followed = Follow(fleet.get(), options.textFile, signals);
    if (!options.textFile.empty()) {
        unlink(options.textFile.c_str());  // old figures would go on being collected
    }
    return followed ? EXIT_OK : Fail(EXIT_FAILED, followed.error());
}

}  // namespace Tesu::Bpf
