// SPDX-License-Identifier: Apache-2.0
#include "client/replay/info.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <map>

#include "client/events/event_names.h"
#include "client/exit_status.h"
#include "client/replay/replay.h"
#include "client/replay/replay_time.h"
#include "client/text/terminal_text.h"
#include "client/text/units.h"
#include "recording/reader.h"
#include "records/event_table.h"
#include "records/read_prefix.h"
#include "util/string_util.h"

namespace Tesu::Bpf {

namespace {

struct Amount {
    uint64_t count = 0;
    uint64_t bytes = 0;
};

// What was counted of a recording.
struct Contents {
    std::map<uint32_t, Amount> events;  // by type
    uint64_t lost = 0;                  // records, as far as the service told
    uint64_t snapshots = 0;
    uint64_t refreshes = 0;
    uint64_t disconnections = 0;
    size_t processes = 0;  // in the last snapshot
    int64_t end = 0;
    const char* ending = "cut short";
};

const char* DescribeEnding(uint32_t reason) {
    switch (reason) {
        case END_CONTINUED:
            return "complete; it goes on in the other half";
        case END_NO_SPACE:
            return "nothing more could be written";
        default:
            return "complete";
    }
}

void Count(const RecordingItem& item, Contents* contents) {
    contents->end = std::max(contents->end, item.time);
    if (const auto* const event = std::get_if<RecordedEvent>(&item.what)) {
        const auto type = ReadPrefix<uint32_t>(event->data, event->size);
        ++contents->events[type].count;
        contents->events[type].bytes += event->size;
        if (type == NOTIFICATION_RECORDS_LOST) {
            contents->lost += ReadPrefix<RecordsLostNotification>(event->data, event->size).lost;
        }
    } else if (const auto* const snapshot = std::get_if<RecordedSnapshot>(&item.what)) {
        ++contents->snapshots;
        contents->processes = snapshot->processes.size();
    } else if (const auto* const refresh = std::get_if<RecordedRefresh>(&item.what)) {
        contents->refreshes += refresh->processes.size() + refresh->gone.size();
    } else if (const auto* const news = std::get_if<RecordedNews>(&item.what)) {
        contents->disconnections += news->state == STATE_LOST ? 1 : 0;
    } else if (const auto* const end = std::get_if<EndBlock>(&item.what)) {
        contents->ending = DescribeEnding(end->reason);
    }
}

std::string Describe(const std::string& path, const HeaderBlock& header, const Contents& contents) {
    const auto text = [](const auto& field) { return EscapeForTerminal(FieldText(field)); };
    const auto line = [](const char* name, const std::string& value) {
        return StringPrintf("%-10s  %s\n", name, value.c_str());
    };
    const ClockReading& clocks = header.clocks;
    std::string out = line("recording", EscapeForTerminal(path));
    out += line("format",
                StringPrintf("%u.%u, by ", header.major, header.minor) + text(header.recorder));
    out += line("machine", text(header.host) + ", " + text(header.system) + " " +
                               text(header.release) + " " + text(header.machine) +
                               StringPrintf(", %u processors", header.processors));
    out += line("kernel", text(header.version));
    out += line("boot", text(header.bootId));
    out += line("begin", FormatDate(clocks.realtime) +
                             StringPrintf(", %" PRId64 ".%06" PRId64 " of the kernel's clock",
                                          clocks.monotonic / 1'000'000'000,
                                          clocks.monotonic % 1'000'000'000 / 1000));
    out += line("length", FormatDuration(std::max(contents.end - clocks.monotonic, int64_t{0})));
    out += line("/proc", StringPrintf("%" PRIu64 " readings, the last of %zu processes; %" PRIu64
                                      " processes read again",
                                      contents.snapshots, contents.processes, contents.refreshes));
    out += line("lost", StringPrintf("%" PRIu64 " records, %" PRIu64 " connections", contents.lost,
                                     contents.disconnections));
    out += line("end", contents.ending);
    out += "\nEVENT                     COUNT        BYTES\n";
    for (const auto& [type, amount] : contents.events) {
        out += StringPrintf("%-20s %10" PRIu64 " %12" PRIu64 "\n", EventTypeName(type).c_str(),
                            amount.count, amount.bytes);
    }
    return out;
}

}  // namespace

int RunInfo(const std::string& path) {
    Result<RecordingReader> reader = RecordingReader::open(path);
    if (!reader) {
        return Fail(EXIT_USAGE, reader.error());
    }
    Contents contents;
    while (const RecordingItem* const item = reader->next()) {
        Count(*item, &contents);
    }
    const std::string text = Describe(path, reader->header().block, contents);
    if (std::fputs(text.c_str(), stdout) < 0 || std::fflush(stdout) != 0) {
        return Fail(EXIT_FAILED, "cannot write");
    }
    ReportDamage(path, reader->damage());
    return EXIT_OK;
}

}  // namespace Tesu::Bpf
