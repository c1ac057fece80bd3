// SPDX-License-Identifier: Apache-2.0
//
// What a recording from somebody else may hold: the input as a file, and as the bodies of blocks
// whose checksums are right, each piece's first byte its type. Played to the end, back and there
// again, it shows the same.
#include <sys/mman.h>
#include <unistd.h>

#include <string>

#include "client/replay/replay.h"
#include "recording/block.h"
#include "tests/fuzz/fuzz.h"

using namespace Tesu::Bpf;

namespace {

std::string Block(uint32_t type, const std::string& body) {
    BlockHead head{type, static_cast<uint32_t>(body.size()), 0, 0};
    head.checksum = BlockChecksum(head, body);
    return std::string(reinterpret_cast<const char*>(&head), sizeof(head)) + body;
}

std::string Header() {
    HeaderBlock header{};
    std::copy_n(RECORDING_MAGIC, sizeof(header.magic), header.magic);
    header.size = sizeof(header);
    header.major = RECORDING_MAJOR;
    return {reinterpret_cast<const char*>(&header), sizeof(header)};
}

void Play(const std::string& bytes) {
    static const int FILE = memfd_create("recording", MFD_CLOEXEC);
    Require(ftruncate(FILE, 0) == 0 &&
            pwrite(FILE, bytes.data(), bytes.size(), 0) == static_cast<ssize_t>(bytes.size()));
    auto replay = Replay::open("/proc/self/fd/" + std::to_string(FILE));
    if (!replay) {
        return;
    }
    const auto rowsAt = [&](int64_t time) {
        replay->goTo(time);
        int64_t sum = replay->now();
        for (const ProcessRow& row : replay->model().view({}).rows) {
            sum = static_cast<int64_t>(static_cast<uint64_t>(sum) * 31 +
                                       static_cast<uint64_t>(row.pid ^ row.resident ^ row.age));
        }
        return sum;
    };
    const int64_t middle = rowsAt(1LL << 40);
    const int64_t end = rowsAt(INT64_MAX);
    Require(rowsAt(1LL << 40) == middle && rowsAt(INT64_MAX) == end);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Play(std::string(data, data + size));
    std::string file = Block(BLOCK_HEADER, Header());
    ForEachPiece(data, size, [&](const char* piece, unsigned length) {
        if (length > 0) {
            file += Block(static_cast<uint8_t>(piece[0]), std::string(piece + 1, length - 1));
        }
    });
    Play(file);
    return 0;
}
