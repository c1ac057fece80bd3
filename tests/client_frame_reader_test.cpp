// SPDX-License-Identifier: Apache-2.0
//
// Frames as a client receives them: whole, in pieces, and hostile.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "ipc/frame_reader.h"
#include "tests/support/wire_client.h"

namespace Tesu::Bpf {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

using Packages = std::vector<std::pair<uint32_t, std::string>>;

std::string Words(std::initializer_list<uint32_t> words) {
    std::string bytes;
    for (const uint32_t word : words) {
        bytes += WireClient::word(word);
    }
    return bytes;
}

// A read buffer whose every byte is on the heap by itself, so that a read past it is found.
class Buffer {
  public:
    explicit Buffer(int capacity) : memory(static_cast<size_t>(capacity)) {
        state.capacity = capacity;
        state.data = memory.data();
    }

    void receive(const std::string& bytes) {
        ASSERT_LE(state.length + static_cast<int>(bytes.size()), state.capacity);
        std::memcpy(state.data + state.length, bytes.data(), bytes.size());
        state.length += static_cast<int>(bytes.size());
    }

    bool read() {
        auto package = TakePackage(&state);
        for (; package && *package; package = TakePackage(&state)) {
            packages.emplace_back((*package)->type,
                                  std::string((*package)->body, (*package)->length));
        }
        error = package ? "" : package.error();
        return package.ok();
    }

    BufferState state;
    Packages packages;
    std::string error;

  private:
    std::vector<char> memory;
};

TEST(FrameReader, TakesFramesInPiecesOfAnySize) {
    const std::string stream = WireClient::frame(3, "abc") +
                               WireClient::frame(1, Words({7, 0, 0})) + WireClient::frame(3, "") +
                               WireClient::frame(9, "unknown types are passed on");
    for (size_t piece = 1; piece <= stream.size(); ++piece) {
        Buffer buffer(static_cast<int>(stream.size()));
        for (size_t at = 0; at < stream.size(); at += piece) {
            buffer.receive(stream.substr(at, piece));
            ASSERT_TRUE(buffer.read()) << buffer.error;
        }
        EXPECT_THAT(buffer.packages,
                    ElementsAre(Pair(3, "abc"), Pair(1, Words({7, 0, 0})), Pair(3, ""),
                                Pair(9, "unknown types are passed on")));
        EXPECT_EQ(buffer.state.cursor, buffer.state.length);
    }
}

TEST(FrameReader, LeavesAnIncompleteTail) {
    Buffer buffer(64);
    buffer.receive(WireClient::frame(3, "whole") + WireClient::frame(3, "cut").substr(0, 14));
    ASSERT_TRUE(buffer.read());
    EXPECT_THAT(buffer.packages, ElementsAre(Pair(3, "whole")));
    EXPECT_EQ(buffer.state.length - buffer.state.cursor, 14);
}

TEST(FrameReader, StopsAtAFrameThatCannotBe) {
    const std::string good = WireClient::frame(3, "good");
    const std::string bad[] = {
        Words({0}),                      // no room for a package header
        Words({7, 3, 0}),                //
        Words({0xffffffff, 3, 0}),       // wraps with its header
        Words({0x80000000, 3, 0}),       // negative as a signed length
        Words({64 - 4 + 1}),             // one more than the buffer holds
        Words({16, 3, 9}) + "12345678",  // body longer than the frame
        Words({16, 3, 0}) + "12345678",  // and shorter
        Words({16, 3, 0xffffffff}) + "12345678",
    };
    for (const std::string& frame : bad) {
        Buffer buffer(64);
        buffer.receive(good + frame);
        EXPECT_FALSE(buffer.read());
        EXPECT_FALSE(buffer.error.empty());
        EXPECT_THAT(buffer.packages, ElementsAre(Pair(3, "good")));
        EXPECT_EQ(buffer.state.cursor, static_cast<int>(good.size()));
    }
}

TEST(FrameReader, TakesAFrameThatFillsTheBuffer) {
    Buffer buffer(64);
    buffer.receive(Words({60, 3}));
    ASSERT_TRUE(buffer.read()) << buffer.error;
    EXPECT_THAT(buffer.packages, IsEmpty());
    buffer.receive(Words({52}) + std::string(52, 'x'));
    ASSERT_TRUE(buffer.read());
    EXPECT_THAT(buffer.packages, ElementsAre(Pair(3, std::string(52, 'x'))));
}

}  // namespace
}  // namespace Tesu::Bpf
