// SPDX-License-Identifier: Apache-2.0
#include "recording/reader.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>
#include <utility>

#include "recording/block.h"
#include "records/read_prefix.h"

namespace Tesu::Bpf {

namespace {

// Within these bounds no sum and no difference of a few of them overflows.
constexpr int64_t LARGEST = INT64_MAX / 8;
// The kernel's own limit on processes and threads together.
constexpr int32_t MOST_TASKS = 4 << 20;

bool IsTime(int64_t time) {
    return time >= 0 && time <= LARGEST;
}

bool AreClocks(const ClockReading& clocks) {
    return IsTime(clocks.monotonic) && IsTime(clocks.boottime) && clocks.realtime >= 0 &&
           clocks.realtime <= INT64_MAX / 2;
}

// The struct at the front of the bytes, as far as it says that it goes, is taken off them. False
// when it says what cannot be.
template <class Struct>
bool TakeStruct(std::string_view* bytes, Struct* taken) {
    constexpr size_t SIZE_AT = offsetof(Struct, size);
    constexpr size_t LEAST = SIZE_AT + sizeof(taken->size);
    if (bytes->size() < LEAST) {
        return false;
    }
    const auto size = ReadPrefix<uint32_t>(bytes->data() + SIZE_AT, sizeof(uint32_t));
    if (size < LEAST || size > bytes->size()) {
        return false;
    }
    *taken = ReadPrefix<Struct>(bytes->data(), size);
    bytes->remove_prefix(size);
    return true;
}

// The bytes behind a 32-bit length.
bool TakeSized(std::string_view* bytes, std::string_view* taken) {
    const auto length = ReadPrefix<uint32_t>(bytes->data(), std::ssize(*bytes));
    if (bytes->size() < sizeof(length) || length > bytes->size() - sizeof(length)) {
        return false;
    }
    *taken = bytes->substr(sizeof(length), length);
    bytes->remove_prefix(sizeof(length) + length);
    return true;
}

// Nothing when it says what no process can have.
std::optional<ProcessSnapshot> ToProcess(const ProcessEntry& entry, std::string_view name) {
    ProcessSnapshot process;
    process.pid = entry.pid;
    process.ppid = entry.ppid;
    process.uid = entry.uid;
    process.name = name;
    process.isKernelThread = (entry.flags & PROCESS_IS_KERNEL_THREAD) != 0;
    process.isEnding = (entry.flags & PROCESS_IS_ENDING) != 0;
    process.threads = entry.threads;
    std::ranges::copy(entry.memory, process.memory.begin());
    if ((entry.flags & PROCESS_HAS_FD_COUNT) != 0) {
        process.openFds = entry.openFds;
    }
    process.startTime = entry.startTime;  // before the boot, where a machine slept
    process.readTime = entry.readTime;
    const bool isPossible = std::ranges::all_of(process.memory, IsTime) &&
                            IsTime(std::abs(std::max(entry.startTime, -INT64_MAX))) &&
                            IsTime(entry.readTime) && entry.threads >= 0 &&
                            entry.threads <= MOST_TASKS;
    return isPossible ? std::optional(std::move(process)) : std::nullopt;
}

}  // namespace

Result<RecordingReader> RecordingReader::open(const std::string& path) {
    RecordingReader reader;
    reader.file.reset(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!reader.file.ok()) {
        return SystemFailure("cannot open " + path);
    }
    if (!reader.takeHeader()) {
        return Failure(path + " is no recording, or its beginning is damaged");
    }
    const HeaderBlock& header = reader.head.block;
    if (header.major != RECORDING_MAJOR) {
        return Failure(path + " is a recording of format " + std::to_string(header.major) +
                       ", this program reads format " + std::to_string(RECORDING_MAJOR));
    }
    return reader;
}

bool RecordingReader::takeHeader() {
    BlockHead block{};
    std::string_view content;
    if (!readBlock(&block, &content) || block.type != BLOCK_HEADER ||
        !TakeStruct(&content, &head.block) ||
        std::memcmp(head.block.magic, RECORDING_MAGIC, sizeof(RECORDING_MAGIC)) != 0 ||
        !AreClocks(head.block.clocks) || content.size() / sizeof(uint32_t) < head.block.typeCount) {
        return false;
    }
    for (uint32_t type = 0; type < head.block.typeCount; ++type) {
        head.types.push_back(ReadPrefix<uint32_t>(content.data(), std::ssize(content)));
        content.remove_prefix(sizeof(uint32_t));
    }
    return true;
}

// Says why there is none, unless the file has ended where a block might begin.
bool RecordingReader::stop(const char* reason) {
    hasEnded = true;
    why = std::string(reason) + " at byte " + std::to_string(blockStart);
    return false;
}

bool RecordingReader::readBlock(BlockHead* block, std::string_view* content) {
    blockStart = offset;
    // How much there is of what was asked for; no more is believed to be there.
    const auto read = [this](void* to, size_t size) {
        size_t got = 0;
        ssize_t count = 1;
        while (got < size && count > 0) {
            count =
                TEMP_FAILURE_RETRY(::read(file.get(), static_cast<char*>(to) + got, size - got));
            got += count > 0 ? static_cast<size_t>(count) : 0;
        }
        return got;
    };
    const size_t size = read(block, sizeof(*block));
    if (size != sizeof(*block)) {
        return stop(size == 0 ? "ends without an end" : "is cut short in a block");
    }
    if (block->length > MAX_BLOCK_LENGTH || block->reserved != 0) {
        return stop("is damaged: no block");
    }
    if (read(body.get(), block->length) != block->length) {
        return stop("is cut short in a block");
    }
    *content = {body.get(), block->length};
    if (BlockChecksum(*block, *content) != block->checksum) {
        return stop("is damaged: a wrong checksum");
    }
    offset += static_cast<int64_t>(sizeof(*block) + block->length);
    return true;
}

const RecordingItem* RecordingReader::next() {
    while (!hasEnded) {
        if (!events.empty()) {
            return takeEvent() ? &item : nullptr;
        }
        BlockHead block{};
        std::string_view content;
        if (!readBlock(&block, &content)) {
            return nullptr;
        }
        // What is of no known type is skipped.
        item.time = -1;
        if (!takeBlock(block.type, content)) {
            stop("is damaged: a block that contradicts itself");
        } else if (item.time >= 0) {
            return &item;
        }
    }
    return nullptr;
}

bool RecordingReader::takeEvent() {
    RecordEntry entry{};
    if (events.size() >= sizeof(entry)) {
        std::memcpy(&entry, events.data(), sizeof(entry));
        events.remove_prefix(sizeof(entry));
        if (entry.length <= events.size()) {
            item.time = received + entry.delay;
            item.what = RecordedEvent{.data = events.data(), .size = entry.length};
            events.remove_prefix(entry.length);
            return true;
        }
    }
    events = {};
    return stop("is damaged: a block that contradicts itself");
}

// Sets the item, unless the block is not all of it or holds none. False when it says what cannot
// be.
bool RecordingReader::takeBlock(uint32_t type, std::string_view content) {
    // A snapshot whose rest is missing counts as none.
    isContinued = isContinued && type == BLOCK_SNAPSHOT;
    switch (type) {
        case BLOCK_SNAPSHOT:
        case BLOCK_PROCESS:
            return takeProcesses(type, content);
        case BLOCK_EVENTS: {
            EventsBlock block{};
            const bool isWhole = TakeStruct(&content, &block) && IsTime(block.received);
            received = block.received;
            events = isWhole ? content : std::string_view();
            return isWhole;
        }
        case BLOCK_STATE: {
            StateBlock block{};
            const bool isWhole = TakeStruct(&content, &block) && IsTime(block.time);
            item = {block.time, RecordedNews{.state = RecordedState(block.state),
                                             .eventType = block.eventType,
                                             .reason = std::string(content)}};
            return isWhole;
        }
        case BLOCK_CLOCKS: {
            ClocksBlock block{};
            const bool isWhole = TakeStruct(&content, &block) && AreClocks(block.clocks);
            item = {block.clocks.monotonic, block.clocks};
            return isWhole;
        }
        case BLOCK_END: {
            EndBlock block{};
            const bool isWhole = TakeStruct(&content, &block) && IsTime(block.time);
            item = {block.time, block};
            hasEnded = isWhole;
            return isWhole;
        }
        default:
            return true;
    }
}

bool RecordingReader::takeProcesses(uint32_t type, std::string_view content) {
    ProcessesBlock block{};
    if (!TakeStruct(&content, &block) || !IsTime(block.begin) || !IsTime(block.end)) {
        return false;
    }
    RecordedRefresh found;
    while (!content.empty()) {
        std::string_view name;
        ProcessEntry entry{};
        if (!TakeSized(&content, &name) || !TakeStruct(&name, &entry)) {
            return false;
        }
        if ((entry.flags & PROCESS_HAS_GONE) != 0) {
            found.gone.push_back(entry.pid);
        } else if (auto process = ToProcess(entry, name)) {
            found.processes.push_back(std::move(*process));
        } else {
            return false;
        }
    }
    if (type == BLOCK_PROCESS) {
        item = {block.begin, std::move(found)};
        return true;
    }
    if (!std::exchange(isContinued, block.isContinued != 0)) {
        snapshot = {};
    }
    snapshot.begin = block.begin;
    snapshot.end = block.end;
    std::ranges::move(found.processes, std::back_inserter(snapshot.processes));
    if (!isContinued) {
        item = {block.begin, std::move(snapshot)};
    }
    return snapshot.processes.size() <= MOST_TASKS;
}

void RecordingReader::seek(int64_t position) {
    offset = lseek(file.get(), position, SEEK_SET);
    events = {};
    isContinued = false;
    hasEnded = false;
    why.clear();
}

}  // namespace Tesu::Bpf
