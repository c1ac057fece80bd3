// SPDX-License-Identifier: Apache-2.0
//
// How each side cuts a stream of bytes into packages: the service its requests, a client its
// replies and events. A stream comes in pieces of any size, and may be anything.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "ipc/frame.h"
#include "ipc/ipc_package_handler.h"
#include "tests/support/wire_client.h"

namespace Tesu::Bpf {
namespace {

constexpr int CAPACITY = 512;

struct Outcome {
    std::vector<std::string> packages;  // as frames
    bool isOutOfStep = false;           // the reader has given up
    size_t consumed = 0;
    bool operator==(const Outcome&) const = default;
};

// Reads what is there; false when it gives up.
using Reader = bool (*)(std::vector<char>&, Outcome*);

bool ReadAsService(std::vector<char>& block, Outcome* outcome) {
    BufferState buffer{0, static_cast<int>(block.size()), CAPACITY, block.data()};
    const auto take = [&](int, const char* body, int length, BufferState*) {
        outcome->packages.push_back(WireClient::frame(0, {body, static_cast<size_t>(length)}));
        return 0;
    };
    const bool isInStep =
        IpcPackageHandler({{0, take}}).handleAllIpcPackageInBuffer(0, &buffer, nullptr);
    outcome->consumed += static_cast<size_t>(buffer.cursor);
    return isInStep;
}

bool ReadAsClient(std::vector<char>& block, Outcome* outcome) {
    FrameBuffer buffer{0, block.size(), CAPACITY, block.data()};
    Package package;
    char fault[FRAME_FAULT_SIZE];
    FrameState state = TakePackage(&buffer, &package, fault);
    for (; state == FRAME_TAKEN; state = TakePackage(&buffer, &package, fault)) {
        outcome->packages.push_back(
            WireClient::frame(package.type, {package.body, package.length}));
    }
    outcome->consumed += buffer.cursor;
    return state == FRAME_INCOMPLETE;
}

// Whatever is received lies in a block of exactly its size, so that a read past it is found.
Outcome Receive(Reader reader, const std::string& stream, const std::function<size_t()>& nextSize) {
    Outcome outcome;
    for (size_t end = 0; end < stream.size() && !outcome.isOutOfStep;) {
        end = std::min(stream.size(), end + nextSize());
        const auto from = stream.begin() + static_cast<ptrdiff_t>(outcome.consumed);
        std::vector<char> block(from, stream.begin() + static_cast<ptrdiff_t>(end));
        outcome.isOutOfStep = !reader(block, &outcome);
    }
    return outcome;
}

class FramesTest : public testing::TestWithParam<Reader> {};
INSTANTIATE_TEST_SUITE_P(BothSides, FramesTest, testing::Values(ReadAsService, ReadAsClient));

TEST_P(FramesTest, AnyPieceOfAnyStreamIsReadAlike) {
    std::mt19937_64 random(1);
    const auto pick = [&](size_t count) { return static_cast<size_t>(random() % count); };
    for (int i = 0; i < 20000; ++i) {
        const bool isHostile = i % 4 != 0;
        std::vector<std::string> frames;
        std::string stream;
        for (size_t left = pick(6); left > 0; --left) {
            const uint32_t type = isHostile ? random() % 3 * 0x7fffffff : 0;
            frames.push_back(WireClient::frame(type, std::string(pick(60), 'x')));
            stream += frames.back();
            if (isHostile && pick(3) == 0) {
                const auto size = static_cast<uint32_t>(frames.back().size());
                const uint32_t words[] = {0, 7, 8, size - 13, size - 3, CAPACITY, 0xfffffff8};
                stream.replace(stream.size() - size + pick(2) * 8, 4,
                               WireClient::word(words[pick(std::size(words))]));
            }
        }
        stream.resize(stream.size() - (isHostile ? std::min(stream.size(), pick(20)) : 0));
        const Outcome whole = Receive(GetParam(), stream, [&] { return stream.size(); });
        ASSERT_EQ(Receive(GetParam(), stream, [&] { return 1 + pick(40); }), whole) << i;
        ASSERT_TRUE(isHostile || whole == (Outcome{frames, false, stream.size()})) << i;
    }
}

TEST(ClientFramesTest, GivesUpFramesThatCannotBe) {
    const auto word = WireClient::word;
    const std::string good = WireClient::frame(3, "good");
    for (const std::string& bad :
         {word(7) + word(3), word(0xffffffff) + word(3), word(CAPACITY - 3),
          word(16) + word(3) + word(9) + "12345678", word(16) + word(3) + word(7) + "12345678"}) {
        const Outcome outcome = Receive(ReadAsClient, good + bad, [] { return CAPACITY; });
        EXPECT_EQ(outcome, (Outcome{{good}, true, good.size()})) << testing::PrintToString(bad);
    }
    const std::string largest = WireClient::frame(3, std::string(CAPACITY - 12, 'x'));
    EXPECT_EQ(Receive(ReadAsClient, largest, [] { return 1; }),
              (Outcome{{largest}, false, CAPACITY}));
}

}  // namespace
}  // namespace Tesu::Bpf
