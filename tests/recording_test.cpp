// SPDX-License-Identifier: Apache-2.0
//
// Recordings: the format, and what becomes of a file that was cut or changed.
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <map>
#include <string>

#include "recording/reader.h"
#include "recording/writer.h"
#include "tests/support/records.h"
#include "tests/support/temp_dir.h"

namespace Tesu::Bpf {
namespace {

std::string Show(const ProcessSnapshot& process) {
    std::string text = " [" + process.name;
    for (const int64_t value :
         {int64_t{process.pid}, int64_t{process.ppid}, int64_t{process.uid},
          int64_t{process.threads}, int64_t{process.isKernelThread}, int64_t{process.isEnding},
          process.memory[0], process.memory[1], process.memory[2], process.memory[3],
          process.openFds.value_or(-1), process.startTime, process.readTime}) {
        text += " " + std::to_string(value);
    }
    return text + "]";
}

std::string Show(const RecordingItem& item) {
    std::string text = std::to_string(item.what.index());
    if (const auto* const event = std::get_if<RecordedEvent>(&item.what)) {
        return text + " at " + std::to_string(item.time) + " " +
               std::string(event->data, event->size);
    }
    if (const auto* const news = std::get_if<RecordedNews>(&item.what)) {
        return text + " " + std::to_string(news->state) + std::to_string(news->eventType) +
               news->reason;
    }
    if (const auto* const snapshot = std::get_if<RecordedSnapshot>(&item.what)) {
        for (const ProcessSnapshot& process : snapshot->processes) {
            text += Show(process);
        }
    }
    if (const auto* const refresh = std::get_if<RecordedRefresh>(&item.what)) {
        for (const ProcessSnapshot& process : refresh->processes) {
            text += Show(process);
        }
        for (const int32_t pid : refresh->gone) {
            text += " gone " + std::to_string(pid);
        }
    }
    if (const auto* const end = std::get_if<EndBlock>(&item.what)) {
        text += " " + std::to_string(end->reason) + " " + std::to_string(end->records);
    }
    return text;
}

// What a reader gives of the bytes, and where it says that they stop being a recording.
struct Reading {
    bool isOpened = false;
    std::string items;
    std::string damage;
    std::map<size_t, std::string> itemsUpTo;  // by the end of a block
};

Reading Read(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
    Reading reading;
    auto reader = RecordingReader::open(path);
    reading.isOpened = reader.ok();
    if (reader.ok()) {
        reading.itemsUpTo[static_cast<size_t>(reader->position())] = "";
        while (const RecordingItem* const item = reader->next()) {
            reading.items += Show(*item) + "\n";
            reading.itemsUpTo[static_cast<size_t>(reader->position())] = reading.items;
        }
        reading.damage = reader->damage();
    }
    return reading;
}

std::string SmallRecording(const std::string& path) {
    auto writer =
        RecordingWriter::create(path, DescribeMachine("test", "/a/socket"), {1, 2, 3, 50005});
    EXPECT_TRUE(writer.ok()) << writer.error();
    ProcessSnapshot process{
        .pid = 7, .ppid = 1, .uid = 1000, .name = "a name", .threads = 3, .openFds = {}};
    process.memory = {4096, 8192, 12288, 16384};
    process.startTime = -5;
    process.readTime = 99;
    writer->addNews(90, STATE_SUBSCRIBED, 0, "");
    const std::vector processes = {process,
                                   {.pid = 8, .name = "", .isEnding = true, .openFds = 17}};
    writer->addProcesses(BLOCK_SNAPSHOT, 95, processes);
    for (const int64_t time :
         {int64_t{100}, int64_t{101}, int64_t{100} + UINT32_MAX, INT64_MAX / 9}) {
        writer->addEvent(time, "record", 6);
    }
    writer->addProcesses(BLOCK_PROCESS, 97, {process}, {9, 10});
    writer->addClocks();
    writer->addNews(98, STATE_REFUSED, 3, "a reason");
    writer->end(END_ASKED);
    return ReadWholeFile(path);
}

TEST(RecordingTest, AnyCutAndAnyChangedByteLeavesWhatStandsBefore) {
    const TempDir temp;
    const std::string whole = SmallRecording(temp.path("whole"));
    const Reading all = Read(temp.path("copy"), whole);
    EXPECT_EQ(all.damage, "");
    EXPECT_EQ(
        all.items,
        "1 30\n"
        "2 [a name 7 1 1000 3 0 0 4096 8192 12288 16384 -1 -5 99] [ 8 0 -1 0 0 1 0 0 0 0 17 0 0]\n"
        "0 at 100 record\n0 at 101 record\n0 at 4294967395 record\n"
        "0 at " +
            std::to_string(INT64_MAX / 9) +
            " record\n"
            "3 [a name 7 1 1000 3 0 0 4096 8192 12288 16384 -1 -5 99] gone 9 gone 10\n"
            "4\n1 43a reason\n5 1 4\n");
    const size_t headerEnd = all.itemsUpTo.begin()->first;
    for (size_t at = 0; at < whole.size(); ++at) {
        std::string changed = whole;
        changed[at] = static_cast<char>(~changed[at]);
        for (const std::string& bytes : {whole.substr(0, at), changed}) {
            const Reading some = Read(temp.path("copy"), bytes);
            ASSERT_EQ(some.isOpened, at >= headerEnd) << at;
            if (some.isOpened) {
                // The block that the byte is in begins where those before it end.
                const auto& [block, items] = *std::prev(all.itemsUpTo.upper_bound(at));
                ASSERT_EQ(some.items, items) << at;
                ASSERT_TRUE(some.damage.ends_with(" at byte " + std::to_string(block)))
                    << some.damage;
            }
        }
    }
}

}  // namespace
}  // namespace Tesu::Bpf
