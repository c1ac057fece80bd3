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
    name = name.substr(0, 1024);  // the kernel's are 64 bytes at most
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
    if (const Result<> begun = writer.writeStruct(BLOCK_HEADER, block, list); !begun) {
        return Failure(begun.error());
    }
    return writer;
}

Result<> RecordingWriter::writeBlock(BlockType type, std::string_view body) {
    BlockHead head{
        .type = type, .length = static_cast<uint32_t>(body.size()), .checksum = 0, .reserved = 0};
    head.checksum = BlockChecksum(head, body);
    std::string block(BytesOf(head));
    block += body;
    const ssize_t count = TEMP_FAILURE_RETRY(write(file.get(), block.data(), block.size()));
    if (count == static_cast<ssize_t>(block.size())) {
        written += block.size();
        return {};
    }
    // A disk that is full takes a part; its END may fit where that was.
    errno = count == -1 ? errno : ENOSPC;
    const auto failure = SystemFailure("cannot write " + path);
    if (ftruncate(file.get(), static_cast<off_t>(written)) == 0) {
        lseek(file.get(), static_cast<off_t>(written), SEEK_SET);
    }
    return failure;
}

template <class Struct>
Result<> RecordingWriter::writeStruct(BlockType type, Struct block, std::string_view rest) {
    block.size = sizeof(block);
    return writeBlock(type, std::string(BytesOf(block)).append(rest));
}

Result<> RecordingWriter::addEvent(int64_t time, const void* data, uint32_t size) {
    if (events.size() >= BLOCK_SIZE || (!events.empty() && time - received > UINT32_MAX)) {
        if (const Result<> flushed = flush(); !flushed) {
            return flushed;
        }
    }
    if (events.empty()) {
        received = time;
        events =
            BytesOf(EventsBlock{.size = sizeof(EventsBlock), .reserved = 0, .received = received});
    }
    const RecordEntry entry{.delay = static_cast<uint32_t>(time - received), .length = size};
    events.append(BytesOf(entry)).append(static_cast<const char*>(data), size);
    ++gathered;
    return {};
}

Result<> RecordingWriter::flush() {
    if (events.empty()) {
        return {};
    }
    const Result<> result = writeBlock(BLOCK_EVENTS, events);
    records += result ? gathered : 0;
    gathered = 0;
    events.clear();
    return result;
}

Result<> RecordingWriter::addNews(int64_t time, RecordedState state, uint32_t eventType,
                                  std::string_view reason) {
    const StateBlock block{
        .size = 0, .state = state, .time = time, .eventType = eventType, .reserved = 0};
    const Result<> flushed = flush();
    return flushed ? writeStruct(BLOCK_STATE, block, reason.substr(0, 1024)) : flushed;
}

Result<> RecordingWriter::addProcesses(BlockType type, int64_t begin,
                                       const std::vector<ProcessSnapshot>& processes,
                                       const std::vector<int32_t>& gone) {
    Result<> result = flush();
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
        if (result && body.size() > PROCESSES_SIZE) {
            block.isContinued = type == BLOCK_SNAPSHOT ? 1 : 0;
            result = writeStruct(type, block, body);
            body.clear();
        }
        AppendEntry(ToEntry(process), process.name, &body);
    }
    block.isContinued = 0;
    return result ? writeStruct(type, block, body) : result;
}

Result<> RecordingWriter::addClocks() {
    const Result<> flushed = flush();
    const ClocksBlock block{.size = 0, .reserved = 0, .clocks = ReadClocks()};
    return flushed ? writeStruct(BLOCK_CLOCKS, block) : flushed;
}

Result<> RecordingWriter::end(EndReason reason) {
    const Result<> flushed = flush();
    const EndBlock block{.size = 0,
                         .reason = flushed ? reason : END_NO_SPACE,
                         .time = MonotonicNanoseconds(),
                         .records = records};
    const Result<> ended = writeStruct(BLOCK_END, block);
    return flushed ? ended : flushed;
}

}  // namespace Tesu::Bpf
