// SPDX-License-Identifier: Apache-2.0
#include "recording/writer.h"

#include <android-base/file.h>
#include <fcntl.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "recording/block.h"
#include "util/monotonic_clock.h"

namespace Tesu::Bpf {

namespace {

// An EVENTS block that has so much gets no more.
constexpr size_t BLOCK_SIZE = 64 << 10;
// Of a name or a reason; the kernel's names are 64 bytes at most.
constexpr size_t LONGEST_TEXT = 1024;
// A block of processes has room for the longest name beyond it.
constexpr size_t PROCESSES_SIZE = MAX_BLOCK_LENGTH - 4096;

template <class Struct>
std::string_view BytesOf(const Struct& block) {
    return {reinterpret_cast<const char*>(&block), sizeof(block)};
}

// The text, cut to leave room for its NUL.
template <size_t N>
void SetText(char (&field)[N], std::string_view text) {
    text.copy(field, N - 1);
}

void AppendEntry(ProcessEntry entry, std::string_view name, std::string* body) {
    name = name.substr(0, LONGEST_TEXT);
    entry.size = sizeof(entry);
    const auto length = static_cast<uint32_t>(sizeof(entry) + name.size());
    body->append(BytesOf(length)).append(BytesOf(entry)).append(name);
}

ProcessEntry ToEntry(const ProcessSnapshot& process) {
    ProcessEntry entry{.size = 0,
                       .flags = (process.isKernelThread ? PROCESS_IS_KERNEL_THREAD : 0U) |
                                (process.isEnding ? PROCESS_IS_ENDING : 0U) |
                                (process.openFds ? PROCESS_HAS_FD_COUNT : 0U),
                       .pid = process.pid,
                       .ppid = process.ppid,
                       .uid = process.uid,
                       .threads = process.threads,
                       .memory = {},
                       .openFds = process.openFds.value_or(0),
                       .startTime = process.startTime,
                       .readTime = process.readTime};
    std::ranges::copy(process.memory, entry.memory);
    return entry;
}

}  // namespace

ClockReading ReadClocks() {
    return {.monotonic = MonotonicNanoseconds(),
            .boottime = ClockNanoseconds(CLOCK_BOOTTIME),
            .realtime = ClockNanoseconds(CLOCK_REALTIME)};
}

HeaderBlock DescribeMachine(const std::string& recorder, const std::string& socketName) {
    HeaderBlock header{};
    header.clocks = ReadClocks();
    header.pageSize = static_cast<uint32_t>(sysconf(_SC_PAGESIZE));
    header.processors = static_cast<uint32_t>(sysconf(_SC_NPROCESSORS_ONLN));
    std::string bootId;
    android::base::ReadFileToString("/proc/sys/kernel/random/boot_id", &bootId);
    SetText(header.bootId, bootId.substr(0, bootId.find('\n')));
    utsname system{};
    uname(&system);
    SetText(header.system, system.sysname);
    SetText(header.host, system.nodename);
    SetText(header.release, system.release);
    SetText(header.version, system.version);
    SetText(header.machine, system.machine);
    SetText(header.recorder, recorder);
    SetText(header.socketName, socketName);
    return header;
}

Result<RecordingWriter> RecordingWriter::create(const std::string& path, const HeaderBlock& header,
                                                const std::vector<uint32_t>& types) {
    RecordingWriter writer;
    writer.path = path;
    writer.file.reset(
        ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!writer.file.ok()) {
        return SystemFailure("cannot make " + path);
    }
    HeaderBlock block = header;
    std::memcpy(block.magic, RECORDING_MAGIC, sizeof(block.magic));
    block.major = RECORDING_MAJOR;
    block.minor = RECORDING_MINOR;
    block.typeCount = static_cast<uint32_t>(types.size());
    const std::string_view list(reinterpret_cast<const char*>(types.data()),
                                types.size() * sizeof(types[0]));
    if (!writer.writeStruct(BLOCK_HEADER, block, list)) {
        return Failure(writer.why);
    }
    return writer;
}

bool RecordingWriter::writeBlock(BlockType type, std::string_view body) {
    if (!why.empty() && type != BLOCK_END) {
        return false;
    }
    BlockHead head{
        .type = type, .length = static_cast<uint32_t>(body.size()), .checksum = 0, .reserved = 0};
    head.checksum = BlockChecksum(head, body);
    std::string block(BytesOf(head));
    block += body;
    const ssize_t count = TEMP_FAILURE_RETRY(write(file.get(), block.data(), block.size()));
    if (count == static_cast<ssize_t>(block.size())) {
        written += block.size();
        return true;
    }
    // A disk that is full takes a part; an END may fit where that was.
    why = "cannot write " + path + ": " + strerror(count == -1 ? errno : ENOSPC);
    if (ftruncate(file.get(), static_cast<off_t>(written)) == 0) {
        lseek(file.get(), static_cast<off_t>(written), SEEK_SET);
    }
    return false;
}

template <class Struct>
bool RecordingWriter::writeStruct(BlockType type, Struct block, std::string_view rest) {
    block.size = sizeof(block);
    return writeBlock(type, std::string(BytesOf(block)).append(rest));
}

void RecordingWriter::addEvent(int64_t time, const void* data, uint32_t size) {
    if (events.size() >= BLOCK_SIZE || (!events.empty() && time - received > UINT32_MAX)) {
        flush();
    }
    if (events.empty()) {
        received = time;
        events =
            BytesOf(EventsBlock{.size = sizeof(EventsBlock), .reserved = 0, .received = received});
    }
    const RecordEntry entry{.delay = static_cast<uint32_t>(time - received), .length = size};
    events.append(BytesOf(entry)).append(static_cast<const char*>(data), size);
    ++gathered;
}

void RecordingWriter::flush() {
    if (!events.empty() && writeBlock(BLOCK_EVENTS, events)) {
        records += gathered;
    }
    gathered = 0;
    events.clear();
}

void RecordingWriter::addNews(int64_t time, RecordedState state, uint32_t eventType,
                              std::string_view reason) {
    flush();
    writeStruct(
        BLOCK_STATE,
        StateBlock{.size = 0, .state = state, .time = time, .eventType = eventType, .reserved = 0},
        reason.substr(0, LONGEST_TEXT));
}

void RecordingWriter::addProcesses(BlockType type, int64_t begin,
                                   const std::vector<ProcessSnapshot>& processes,
                                   const std::vector<int32_t>& gone) {
    flush();
    ProcessesBlock block{
        .size = 0, .isContinued = 0, .begin = begin, .end = MonotonicNanoseconds()};
    std::string body;
    for (const int32_t pid : gone) {
        ProcessEntry entry{};
        entry.pid = pid;
        entry.flags = PROCESS_HAS_GONE;
        AppendEntry(entry, "", &body);
    }
    for (const ProcessSnapshot& process : processes) {
        if (body.size() > PROCESSES_SIZE) {
            block.isContinued = type == BLOCK_SNAPSHOT ? 1 : 0;
            writeStruct(type, block, body);
            body.clear();
        }
        AppendEntry(ToEntry(process), process.name, &body);
    }
    block.isContinued = 0;
    writeStruct(type, block, body);
}

void RecordingWriter::addClocks() {
    flush();
    writeStruct(BLOCK_CLOCKS, ClocksBlock{.size = 0, .reserved = 0, .clocks = ReadClocks()});
}

void RecordingWriter::end(EndReason reason) {
    flush();
    writeStruct(BLOCK_END, EndBlock{.size = 0,
                                    .reason = why.empty() ? reason : END_NO_SPACE,
                                    .time = MonotonicNanoseconds(),
                                    .records = records});
}

}  // namespace Tesu::Bpf
