// SPDX-License-Identifier: Apache-2.0
#include "client/export/export.h"

#include <android-base/file.h>
#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <utility>

#include "client/exit_status.h"
#include "client/export/trace_export.h"
#include "client/replay/replay.h"
#include "client/replay/replay_time.h"
#include "util/monotonic_clock.h"

namespace Tesu::Bpf {

namespace {

// Writes of the recording what is in between.
Result<> Write(RecordingReader* recording, int64_t since, int64_t until, int fd,
               const TerminationSignals& signals) {
    TraceExport trace(recording->header());
    bool hasBegun = false;
    int64_t last = 0;
    int64_t takeDue = 0;
    const auto begin = [&](int64_t time) {
        if (!std::exchange(hasBegun, true)) {
            trace.begin(time);
        }
    };
    const auto write = [&]() -> Result<> {
        const std::string some = trace.take();
        if (signals.wait(std::chrono::milliseconds(0))) {
            return Failure("ended by a signal");
        }
        return !hasBegun || android::base::WriteFully(fd, some.data(), some.size())
                   ? Result<>()
                   : SystemFailure("cannot write");
    };
    for (const RecordingItem* item = recording->next(); item != nullptr && item->time <= until;
         item = recording->next()) {
        last = item->time;
        if (last >= since) {
            begin(since);
        }
        trace.add(*item);
        if (last >= takeDue) {
            takeDue = last + NANOSECONDS_PER_SECOND;
            if (Result<> written = write(); !written) {
                return written;
            }
        }
    }
    begin(std::min(since, last));
    trace.finish();
    return write();
}

}  // namespace

int RunExport(const ExportOptions& options, const TerminationSignals& signals) {
    Result<RecordingReader> recording = RecordingReader::open(options.from);
    if (!recording) {
        return Fail(EXIT_USAGE, recording.error());
    }
    const ClockReading& clocks = recording->header().block.clocks;
    Result<int64_t> since = clocks.monotonic;
    Result<int64_t> until = INT64_MAX;
    if (!options.since.empty()) {
        since = ParseReplayTime(options.since, clocks);
    }
    if (!options.until.empty()) {
        until = ParseReplayTime(options.until, clocks);
    }
    if (!since || !until || *since > *until) {
        return Fail(EXIT_USAGE, !since   ? since.error()
                                : !until ? until.error()
                                         : "--until is before --since");
    }
    const android::base::unique_fd file(
        ::open(options.output.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!file.ok()) {
        return Fail(EXIT_FAILED, Result<>(SystemFailure("cannot make " + options.output)).error());
    }
    const Result<> written = Write(&*recording, *since, *until, file.get(), signals);
    if (!written) {
        unlink(options.output.c_str());
        return Fail(EXIT_FAILED, options.output + ": " + written.error());
    }
    ReportDamage(options.from, recording->damage());
    return EXIT_OK;
}

}  // namespace Tesu::Bpf
