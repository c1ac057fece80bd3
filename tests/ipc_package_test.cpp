// SPDX-License-Identifier: Apache-2.0
#include "ipc/ipc_package.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "ipc/ipc_package_handler.h"
#include "tests/support/wire_client.h"

namespace {

// A buffer over exactly `bytes`, on the heap, so that a read past its end is seen.
class ExactBuffer {
  public:
    explicit ExactBuffer(const std::string& bytes, int spare = 0)
        : storage(bytes.begin(), bytes.end()) {
        storage.resize(bytes.size() + static_cast<size_t>(spare));
        storage.shrink_to_fit();
        state.length = static_cast<int>(bytes.size());
        state.capacity = static_cast<int>(storage.size());
        state.data = storage.data();
    }
    BufferState* operator->() { return &state; }
    BufferState* get() { return &state; }
    std::string unsent() const {
        return {state.data + state.cursor, static_cast<size_t>(state.length - state.cursor)};
    }

  private:
    std::vector<char> storage;
    BufferState state;
};

bool IsComplete(const std::string& bytes) {
    ExactBuffer buffer(bytes);
    long long headerLength = 0;
    long long packageLength = 0;
    const bool complete = CheckIpcPackageComplete(buffer.get(), &headerLength, &packageLength);
    EXPECT_EQ(headerLength, 4);
    return complete;
}

std::string Word(uint32_t value) {
    return WireClient::word(value);
}

TEST(IpcFrame, OnlyWholeRequestsAreComplete) {
    const std::string request = WireClient::request(1, "x", "data");
    for (size_t length = 0; length < request.size(); ++length) {
        EXPECT_FALSE(IsComplete(request.substr(0, length))) << length;
    }
    EXPECT_TRUE(IsComplete(request));
    EXPECT_TRUE(IsComplete(request + "next"));
    EXPECT_FALSE(IsComplete(WireClient::frame(1, "response")));
    EXPECT_FALSE(IsComplete(WireClient::frame(3, "event")));
}

TEST(IpcFrame, HostileLengthsAreNeverCompleteNorReadBeyondTheBuffer) {
    for (const uint32_t length : {0x7fffffffU, 0x80000000U, 0xfffffffcU, 0xffffffffU}) {
        EXPECT_FALSE(IsComplete(Word(length)));
        EXPECT_FALSE(IsComplete(Word(length) + Word(0)));
        EXPECT_FALSE(IsComplete(Word(length) + Word(0) + std::string(64, '\0')));
    }
    EXPECT_FALSE(IsComplete(Word(20) + Word(0x80000000) + std::string(64, '\0')))
        << "a type with its top bit set";
}

TEST(IpcFrame, ThePackageLengthIsTheFirstEightBytes) {
    const std::string response = WireClient::frame(1, "body");
    for (const size_t length : {size_t{6}, response.size()}) {
        ExactBuffer buffer(response.substr(0, length));
        long long headerLength = 0;
        long long packageLength = 0;
        EXPECT_FALSE(CheckIpcPackageComplete(buffer.get(), &headerLength, &packageLength));
        EXPECT_EQ(packageLength, (1LL << 32) + 12);
    }
    EXPECT_FALSE(IsComplete(Word(0)));
    EXPECT_FALSE(IsComplete(Word(0) + Word(20)));
    EXPECT_TRUE(IsComplete(Word(0) + Word(0)));
}

TEST(IpcFrame, SaveUnuseBufferKeepsTheUnconsumedTail) {
    ExactBuffer buffer("consumedkept");
    buffer->cursor = 8;
    EXPECT_EQ(SaveUnuseBuffer(buffer.get()), 4);
    EXPECT_EQ(buffer.unsent(), "kept");
    EXPECT_EQ(buffer->cursor, 0);
}

TEST(IpcPackageQueue, PackagesHaveTheirWireLayout) {
    IpcPackageManager queue;
    ExactBuffer buffer("", 1000);
    TesuReqIpcPackage request{
        .requestId = 7, .command = "register-event-monitor", .length = 4, .data = "\2\0\0\0"};
    TesuRespIpcPackage response{.requestId = 8, .result = -1, .length = 3, .data = "abc"};
    const std::string prebuilt = Word(3) + Word(2) + "hi";
    ASSERT_TRUE(queue.appendReqIpcPackage(&request));
    ASSERT_TRUE(queue.appendRespIpcPackage(&response));
    ASSERT_TRUE(queue.buildAndAppendSecondIpcPackage(3, "event", 5));
    ASSERT_TRUE(queue.buildAndAppendSecondIpcPackage(3, nullptr, 0));
    ASSERT_TRUE(queue.buildAndAppendIpcPackage(prebuilt.data(), 10));
    EXPECT_FALSE(queue.buildAndAppendSecondIpcPackage(4, "event", 5));
    EXPECT_EQ(queue.getIpcPackageCount(), 5U);

    EXPECT_TRUE(queue.fillIpcPackageToBuffer(buffer.get()));
    EXPECT_EQ(buffer.unsent(),
              WireClient::subscription(7, 2) +
                  WireClient::frame(1, Word(8) + Word(0xffffffff) + Word(3) + Word(0) + "abc") +
                  WireClient::frame(3, "event") + WireClient::frame(3, "") +
                  WireClient::frame(3, "hi"));
    EXPECT_FALSE(queue.fillIpcPackageToBuffer(buffer.get())) << "nothing is left";
}

TEST(IpcPackageQueue, FitTestsDifferByOneByte) {
    IpcPackageManager queue;
    queue.buildAndAppendSecondIpcPackage(3, "12345678", 8);
    ExactBuffer exact("", 20);
    EXPECT_FALSE(queue.fillNextIpcPackageToBuffer(exact.get()));
    ExactBuffer spare("", 21);
    EXPECT_TRUE(queue.fillNextIpcPackageToBuffer(spare.get()));

    queue.buildAndAppendSecondIpcPackage(3, "12345678", 8);
    queue.buildAndAppendSecondIpcPackage(3, "12345678", 8);
    ExactBuffer two("", 39);
    EXPECT_TRUE(queue.fillIpcPackageToBuffer(two.get()));
    EXPECT_EQ(two->length, 20) << "no part of a package that does not fit";
    EXPECT_TRUE(queue.fillIpcPackageToBuffer(two.get())) << "queue was not empty";
    EXPECT_TRUE(queue.fillIpcPackageToBuffer(exact.get()));
    EXPECT_EQ(exact->length, 20);
}

TEST(IpcPackageQueue, WhatNeverFitsIsRefusedAndBlocksNothing) {
    IpcPackageManager queue;
    const std::string body(IPC_MAX_PACKAGE_SIZE, 'x');
    const unsigned largest = IPC_MAX_PACKAGE_SIZE - IPC_PACKAGE_HEADER_SIZE;
    EXPECT_FALSE(queue.buildAndAppendSecondIpcPackage(3, body.data(), largest + 1));
    TesuReqIpcPackage request{.length = 0xfffffff0, .data = body.data()};
    EXPECT_FALSE(queue.appendReqIpcPackage(&request)) << "the sum wraps in 32 bits";
    EXPECT_EQ(queue.getRefusedPackageCount(), 2U);
    EXPECT_TRUE(queue.buildAndAppendSecondIpcPackage(3, body.data(), largest));
    ExactBuffer buffer("", IPC_BUFFER_SIZE);
    EXPECT_TRUE(queue.fillNextIpcPackageToBuffer(buffer.get()));
}

TEST(IpcPackageQueue, WaitEndsWithAPackageOrInTime) {
    IpcPackageManager queue;
    queue.waitEventReady(0);
    std::thread producer([&] { queue.buildAndAppendSecondIpcPackage(3, "x", 1); });
    queue.waitEventReady(60000);
    EXPECT_EQ(queue.getIpcPackageCount(), 1U);
    producer.join();
}

TEST(IpcPackageHandler, HandlesWhatIsWholeAndStopsAtARefusal) {
    std::vector<std::string> bodies;
    int result = 0;
    IpcPackageHandler handler({{0, [&](int fd, char* body, int length, BufferState*) {
                                    EXPECT_EQ(fd, 5);
                                    bodies.emplace_back(body, static_cast<size_t>(length));
                                    return result;
                                }}});
    const std::string first = WireClient::frame(0, "one");
    ExactBuffer buffer(first + WireClient::frame(0, "second") + first.substr(0, 7));
    EXPECT_TRUE(handler.handleAllIpcPackageInBuffer(5, buffer.get(), nullptr));
    EXPECT_EQ(bodies, (std::vector<std::string>{"one", "second"}));
    EXPECT_EQ(buffer.unsent(), first.substr(0, 7));

    result = -1;
    ExactBuffer refused(first + first);
    EXPECT_FALSE(handler.handleAllIpcPackageInBuffer(5, refused.get(), nullptr));
    EXPECT_EQ(refused->cursor, 0);
}

TEST(IpcPackageHandler, MalformedFramesAreConsumedWithoutAHandler) {
    int calls = 0;
    IpcPackageHandler handler({{0, [&](int, char*, int, BufferState*) { return ++calls; }}});
    const std::string bodyTooLong = Word(8) + Word(0) + Word(1);
    const std::string hugeBody = Word(12) + Word(0) + Word(0xfffffff8) + "1234";
    const std::string tooShort = Word(7) + Word(0) + "abc";
    ExactBuffer buffer(bodyTooLong + hugeBody + tooShort + WireClient::frame(0, ""));
    EXPECT_TRUE(handler.handleAllIpcPackageInBuffer(1, buffer.get(), nullptr));
    EXPECT_EQ(buffer->cursor, buffer->length);
    EXPECT_EQ(calls, 1) << "of the one good frame";

    std::string unknown = Word(7) + Word(0);
    EXPECT_EQ(handler.handleSecondIpcPackage(1, unknown.data(), 8, nullptr), 0);
}

TEST(IpcReqCallBackManager, EachCallbackRunsOnceForItsId) {
    IpcReqCallBackManager manager;
    EXPECT_EQ(manager.getReqId(), 0U);
    EXPECT_EQ(manager.getReqId(), 1U);
    std::string seen;
    const auto callback = [&](unsigned id, int result, char* data, unsigned length) {
        seen += std::to_string(id) + ":" + std::to_string(result) + ":" + std::string(data, length);
        return 0;
    };
    EXPECT_TRUE(manager.addIpcReqCallBack(1, callback));
    EXPECT_FALSE(manager.addIpcReqCallBack(1, callback)) << "replaced";
    EXPECT_TRUE(manager.addIpcReqCallBack(2, {}));
    EXPECT_TRUE(manager.addIpcReqCallBack(3, callback));

    // Off any alignment, as in a stream.
    std::string body = "?" + Word(1) + Word(0xffffffff) + Word(2) + "hi";
    auto* response = reinterpret_cast<TesuRespIpcPackage*>(body.data() + 1);
    EXPECT_TRUE(manager.handleReqCallBack(response));
    EXPECT_FALSE(manager.handleReqCallBack(response));
    EXPECT_EQ(seen, "1:-1:hi");
    body = Word(2) + Word(0) + Word(0);
    EXPECT_TRUE(manager.handleReqCallBack(reinterpret_cast<TesuRespIpcPackage*>(body.data())));
    EXPECT_TRUE(manager.delIpcReq(3));
    EXPECT_FALSE(manager.delIpcReq(3));
}

}  // namespace
