// SPDX-License-Identifier: Apache-2.0
#include "client/event_text.h"

#include <optional>
#include <variant>

#include "client/event_names.h"
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

// The columns of one line, before they are aligned.
struct Line {
    const char* word = "";
    const char* paint = PLAIN;
    std::optional<int64_t> time;  // none: the event carries none
    std::optional<int32_t> pid;
    std::string name;  // as received, not yet escaped
    std::string details;
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

std::string Sizes(int64_t anon, int64_t file, int64_t shmem, int64_t swap) {
    return "anon " + FormatBytes(anon) + " file " + FormatBytes(file) + " shmem " +
           FormatBytes(shmem) + " swap " + FormatBytes(swap);
}

// What did not change is left out.
void AppendChange(const char* kind, int64_t before, int64_t now, std::string* details) {
    if (now != before) {
        *details += std::string(kind) + " " + FormatBytes(before) + " -> " + FormatBytes(now) + " ";
    }
}

Line Describe(const RawTesuTaskInitEvent& event) {
    return {"init",
            DIM,
            event.header.time,
            event.pid,
            std::string(FieldText(event.comm)),
            ParentAndUser(event.ppid, event.uid) + StringPrintf(" threads %d ", event.threadNum) +
                Sizes(event.rssAnonSize, event.rssFileSize, event.rssShmemSize, event.rssSwapSize)};
}

Line Describe(const RawRssStatEvent& event) {
    const char* const member = RssMemberName(event.member);
    const std::string kind = member != nullptr ? member : StringPrintf("member %d", event.member);
    return {"rss", PLAIN, event.header.time, event.pid, "", kind + " " + FormatBytes(event.size)};
}

Line Describe(const RawTaskCreateEvent& event) {
    Line line{"create?",
              PLAIN,
              event.header.time,
              event.pid,
              std::string(FieldText(event.comm)),
              ParentAndUser(event.ppid, event.uid)};
    if (event.taskType == RAW_TASK_PROCESS) {
        line.word = "fork";
        line.paint = GREEN;
    } else if (event.taskType == RAW_TASK_THREAD) {
        line.word = "thread+";
        line.paint = DIM;
        line.details = StringPrintf("uid %d", event.uid);
    } else {
        line.details += StringPrintf(" task type %d", event.taskType);
    }
    return line;
}

Line Describe(const RawTaskExitEvent& event) {
    Line line{"exit?", PLAIN, event.header.time, event.pid, std::string(FieldText(event.comm)), ""};
    if (event.taskType == RAW_TASK_PROCESS) {
        line.word = "exit";
        line.paint = RED;
    } else if (event.taskType == RAW_TASK_THREAD) {
        line.word = "thread-";
        line.paint = DIM;
    } else {
        line.details = StringPrintf("task type %d", event.taskType);
    }
    return line;
}

Line Describe(const RawDmabufAllocEvent& event) {
    return {"dmabuf", YELLOW, event.header.time, event.pid, "", FormatBytes(event.size) + " held"};
}

Line Describe(const RawCgroupAttachEvent& event) {
    return {"cgroup",
            PLAIN,
            event.header.time,
            event.pid,
            std::string(FieldText(event.comm)),
            EscapeForTerminal(FieldText(event.path)) +
                StringPrintf(" level %d id %llu hierarchy %d", event.level,
                             static_cast<unsigned long long>(event.cgroupId), event.rootId)};
}

Line Describe(const RawFdUpdateEvent& event) {
    return {"fds",
            PLAIN,
            event.header.time,
            event.pid,
            std::string(FieldText(event.comm)),
            StringPrintf("%lld open, was %lld, uid %d", static_cast<long long>(event.openFds),
                         static_cast<long long>(event.reportedFds), event.uid)};
}

Line Describe(const ProcessCreatedNotification& event) {
    return {"created",
            GREEN,
            std::nullopt,
            event.pid,
            std::string(FieldText(event.comm)),
            ParentAndUser(event.ppid, event.uid)};
}

Line Describe(const ProcessExitedNotification& event) {
    return {"exited", RED, std::nullopt, event.pid, std::string(FieldText(event.comm)), ""};
}

Line Describe(const ThreadCountNotification& event) {
    return {"threads",
            YELLOW,
            std::nullopt,
            event.pid,
            "",
            StringPrintf("%d -> %d (%+lld) ", event.oldThreadNum, event.threadNum,
                         static_cast<long long>(event.threadNum) - event.oldThreadNum) +
                ParentAndUser(event.ppid, event.uid)};
}

Line Describe(const MemoryNotification& event) {
    const int64_t now =
        Sum(Sum(event.rssFileSize, event.rssAnonSize), Sum(event.rssSwapSize, event.rssShmemSize));
    const int64_t before = Sum(Sum(event.rssFileOldSize, event.rssAnonOldSize),
                               Sum(event.rssSwapOldSize, event.rssShmemOldSize));
    std::string details =
        FormatSignedBytes(Difference(now, before)) + " to " + FormatBytes(now) + ": ";
    AppendChange("anon", event.rssAnonOldSize, event.rssAnonSize, &details);
    AppendChange("file", event.rssFileOldSize, event.rssFileSize, &details);
    AppendChange("shmem", event.rssShmemOldSize, event.rssShmemSize, &details);
    AppendChange("swap", event.rssSwapOldSize, event.rssSwapSize, &details);
    return {"memory",
            YELLOW,
            std::nullopt,
            event.pid,
            std::string(FieldText(event.comm)),
            details + ParentAndUser(event.ppid, event.uid)};
}

Line Describe(const UnknownEvent& event) {
    Line line;
    line.word = "?";
    line.details = event.type ? StringPrintf("type %u, ", *event.type) : "no type, ";
    line.details += StringPrintf("%u bytes: ", event.size) +
                    ConvertToHexString(event.start.data(), static_cast<int>(event.start.size()));
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
    text.erase(text.find_last_not_of(' ') + 1);
    return text + "\n";
}

}  // namespace

std::string TextFormatter::header() {
    return "          TIME  EVENT        PID  NAME              DETAILS\n";
}

void TextFormatter::append(const Event& event, int64_t receivedTime, std::string* out) {
    Line line = std::visit([](const auto& known) { return Describe(known); }, event);
    if (const auto* const fork = std::get_if<RawTaskCreateEvent>(&event)) {
        noteFork(*fork);
    } else if (const auto* const exit = std::get_if<RawTaskExitEvent>(&event)) {
        line.details += lifetime(*exit);
    }
    *out += Render(line, receivedTime, colour);
}

void TextFormatter::noteFork(const RawTaskCreateEvent& event) {
    if (event.taskType != RAW_TASK_PROCESS) {
        return;
    }
    if (forkTimes.size() >= MAX_FORK_TIMES) {
        forkTimes.clear();
    }
    forkTimes[event.pid] = event.header.time;
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
