// SPDX-License-Identifier: Apache-2.0
//
// What a client may send to the service, in pieces of any size, between events: what the service
// writes are whole frames, and nothing of the client is left behind.
#include "ipc/frame.h"
#include "service/tesu_bpf_service.h"
#include "tests/fuzz/fuzz.h"

using namespace Tesu::Bpf;

namespace {

constexpr int CLIENT = 7;
constexpr int READ_CAPACITY = 256;
constexpr int WRITE_CAPACITY = 64;

// Takes what was written, as the client would.
void TakeFrames(BufferState* written) {
    Require(written->length < WRITE_CAPACITY);
    FrameBuffer frames{0, static_cast<size_t>(written->length), WRITE_CAPACITY, written->data};
    Package package;
    char fault[FRAME_FAULT_SIZE];
    while (frames.cursor < frames.length) {
        Require(TakePackage(&frames, &package, fault) == FRAME_TAKEN);
    }
    written->cursor = written->length = 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    TesuBpfService* const service = TesuBpfService::GetInstance();
    EventManager::ClientQueues queues;
    EventManager::GetInstance()->setClientQueues(&queues);
    std::vector<char> in;  // of exactly what was received and not yet taken
    std::vector<char> out(WRITE_CAPACITY);
    BufferState written{.capacity = WRITE_CAPACITY, .data = out.data()};
    service->onClientLibConnection(CLIENT);
    ForEachPiece(data, size, [&](const char* piece, unsigned length) {
        in.insert(in.end(), piece, piece + std::min<size_t>(length, READ_CAPACITY - in.size()));
        in.shrink_to_fit();
        BufferState received{0, static_cast<int>(in.size()), READ_CAPACITY, in.data()};
        service->onClientLibReadable(CLIENT, &received, &written);
        in.erase(in.begin(), in.begin() + received.cursor);
        EventManager::GetInstance()->AppendEvent(piece, length);
        service->onClientLibWriteable(CLIENT, &written);
        TakeFrames(&written);
    });
    service->onClientLibClose(CLIENT);
    Require(queues.empty());
    return 0;
}
