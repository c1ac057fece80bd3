// SPDX-License-Identifier: Apache-2.0
#include "client/events/event_text.h"

#include <optional>
#include <string_view>
#include <utility>
#include <variant>

#include "client/text/terminal_text.h"
#include "client/text/units.h"
#include "util/string_util.h"

namespace Tesu::Bpf {

namespace {

constexpr size_t NAME_WIDTH = TESU_COMM_LEN;
constexpr size_t EVENT_WIDTH = 8;

constexpr const char* PLAIN = "";
constexpr const char* GREEN = "\033[32m";
constexpr const char* RED = "\033[31m";
constexpr const char* YELLOW = "\033[33m";
constexpr const char* DIM = "\033[2m";
constexpr const char* RESET = "\033[0m";

// One line, before its columns are aligned.
struct Line {
    const char* word = "";
    const char* paint = PLAIN;
    std::string details = {};
    std::optional<int64_t> time = {};  // none: the event carries none
    std::optional<int32_t> pid = {};
    std::string_view name = {};  // as received, not yet escaped
};

std::string ParentAndUser(int32_t ppid, int32_t uid) {
    return StringPrintf("parent %d uid %d", ppid, uid);
}

// Wraps instead of overflowing: the sizes are whatever the stream holds.
int64_t Sum(int64_t a, int64_t b) {
    return static_cast<int64_t>(static_cast<uint64_t>(a) + static_cast<uint64_t>(b));
}

int64_t Difference(int64_t a, int64_t b) {
    return static_cast<int64_t>(static_cast<uint64_t>(a) - static_cast<uint64_t>(b));
}

// What did not change is left out.
std::string Change(const char* kind, int64_t before, int64_t now) {
    return now == before ? ""
                         : StringPrintf("%s %s -> %s ", kind, FormatBytes(before).c_str(),
                                        FormatBytes(now).c_str());
}

Line Describe(const RawTesuTaskInitEvent& event) {
    return {"init", DIM,
            ParentAndUser(event.ppid, event.uid) + StringPrintf(" threads %d", event.threadNum) +
                " anon " + FormatBytes(event.rssAnonSize) + " file " +
                FormatBytes(event.rssFileSize) + " shmem " + FormatBytes(event.rssShmemSize) +
                " swap " + FormatBytes(event.rssSwapSize)};
}

Line Describe(const RawRssStatEvent& event) {
    const char* const member = RssMemberName(event.member);
    return {"rss", PLAIN,
            (member != nullptr ? member : StringPrintf("member %d", event.member)) + " " +
                FormatBytes(event.size)};
}

Line Describe(const RawTaskCreateEvent& event) {
    switch (event.taskType) {
        case RAW_TASK_PROCESS:
            return {"fork", GREEN, ParentAndUser(event.ppid, event.uid)};
        case RAW_TASK_THREAD:
            return {"thread+", DIM, StringPrintf("uid %d", event.uid)};
        default:
            return {"create?", PLAIN,
                    ParentAndUser(event.ppid, event.uid) +
                        StringPrintf(" task type %d", event.taskType)};
    }
}

Line Describe(const RawTaskExitEvent& event) {
    switch (event.taskType) {
        case RAW_TASK_PROCESS:
            return {"exit", RED};
        case RAW_TASK_THREAD:
            return {"thread-", DIM};
        default:
            return {"exit?", PLAIN, StringPrintf("task type %d", event.taskType)};
    }
}

Line Describe(const RawDmabufAllocEvent& event) {
    return {"dmabuf", YELLOW, FormatBytes(event.size) + " held"};
}

Line Describe(const RawCgroupAttachEvent& event) {
    return {"cgroup", PLAIN,
            EscapeForTerminal(FieldText(event.path)) +
                StringPrintf(" level %d id %llu hierarchy %d", event.level,
                             static_cast<unsigned long long>(event.cgroupId), event.rootId)};
}

Line Describe(const RawFdUpdateEvent& event) {
    return {"fds", PLAIN,
            StringPrintf("%lld open, was %lld, uid %d", static_cast<long long>(event.openFds),
                         static_cast<long long>(event.reportedFds), event.uid)};
}

Line Describe(const ProcessCreatedNotification& event) {
    return {"created", GREEN, ParentAndUser(event.ppid, event.uid)};
}

Line Describe(const ProcessExitedNotification& /*event*/) {
    return {"exited", RED};
}

Line Describe(const ThreadCountNotification& event) {
    return {"threads", YELLOW,
            StringPrintf("%d -> %d (%+lld) ", event.oldThreadNum, event.threadNum,
                         static_cast<long long>(event.threadNum) - event.oldThreadNum) +
                ParentAndUser(event.ppid, event.uid)};
}

Line Describe(const MemoryNotification& event) {
    const int64_t now =
        Sum(Sum(event.rssFileSize, event.rssAnonSize), Sum(event.rssSwapSize, event.rssShmemSize));
    const int64_t before = Sum(Sum(event.rssFileOldSize, event.rssAnonOldSize),
                               Sum(event.rssSwapOldSize, event.rssShmemOldSize));
    return {"memory", YELLOW,
            FormatSignedBytes(Difference(now, before)) + " to " + FormatBytes(now) + ": " +
                Change("anon", event.rssAnonOldSize, event.rssAnonSize) +
                Change("file", event.rssFileOldSize, event.rssFileSize) +
                Change("shmem", event.rssShmemOldSize, event.rssShmemSize) +
                Change("swap", event.rssSwapOldSize, event.rssSwapSize) +
                ParentAndUser(event.ppid, event.uid)};
}

Line Describe(const RecordsLostNotification& event) {
    const char* const ring = RingName(event.ring);
    return {"LOST", RED,
            StringPrintf("%llu records, %llu in all, of the ",
                         static_cast<unsigned long long>(event.lost),
                         static_cast<unsigned long long>(event.total)) +
                (ring != nullptr ? ring : StringPrintf("%d.", event.ring)) + " ring"};
}

Line Describe(const UnknownEvent& event) {
    return {"?", PLAIN,
            (event.type ? StringPrintf("type %u, ", *event.type) : "no type, ") +
                StringPrintf("%u bytes: ", event.size) +
                ConvertToHexString(event.start.data(), static_cast<int>(event.start.size()))};
}

// Adds what records have in common.
template <class Record>
Line MakeLine(const Record& record) {
    Line line = Describe(record);
    if constexpr (requires { record.header; }) {
        line.time = record.header.time;
    }
    if constexpr (requires { record.pid; }) {
        line.pid = record.pid;
    }
    if constexpr (requires { record.comm; }) {
        line.name = FieldText(record.comm);
    }
    return line;
}

std::string Render(const Line& line, int64_t receivedTime, bool colour) {
    const int64_t time = line.time.value_or(receivedTime);
    const bool painted = colour && *line.paint != '\0';
    std::string text = StringPrintf("%c%6lld.%06lld  ", line.time ? ' ' : '~',
                                    static_cast<long long>(time / 1'000'000'000),
                                    static_cast<long long>(time % 1'000'000'000 / 1000));
    text += painted ? line.paint : "";
    text += PadRight(line.word, EVENT_WIDTH);
    text += painted ? RESET : "";
    text += line.pid ? StringPrintf(" %7d  ", *line.pid) : "       -  ";
    text += PadRight(line.name.empty() ? "-" : EscapeForTerminal(line.name), NAME_WIDTH);
    text += "  " + line.details;
    return TrimRight(std::move(text)) + "\n";
}

}  // namespace

void TextFormatter::append(const Event& event, int64_t receivedTime, std::string* out) {
    Line line = std::visit([](const auto& record) { return MakeLine(record); }, event);
    if (const auto* const fork = std::get_if<RawTaskCreateEvent>(&event)) {
        if (fork->taskType == RAW_TASK_PROCESS) {
            if (forkTimes.size() >= MAX_FORK_TIMES) {
                forkTimes.clear();
            }
            forkTimes[fork->pid] = fork->header.time;
        }
    } else if (const auto* const exit = std::get_if<RawTaskExitEvent>(&event)) {
        line.details += lifetime(*exit);
    }
    *out += Render(line, receivedTime, colour);
}

// How long the process lived, when its fork was seen.
std::string TextFormatter::lifetime(const RawTaskExitEvent& event) {
    const auto found = forkTimes.find(event.pid);
    if (event.taskType != RAW_TASK_PROCESS || found == forkTimes.end()) {
        return "";
    }
    const int64_t lived = Difference(event.header.time, found->second);
    forkTimes.erase(found);
    return lived >= 0 ? "after " + FormatDuration(lived) : "";
}

}  // namespace Tesu::Bpf
