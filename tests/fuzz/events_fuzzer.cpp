// SPDX-License-Identifier: Apache-2.0
//
// What a service may send to the client program: the input as one event, and as a stream in pieces
// of any size. Nothing in it reaches a terminal but as text.
#include <android-base/unique_fd.h>
#include <cutils/sockets.h>
#include <sys/socket.h>
#include <unistd.h>

#include "client/events/event_json.h"
#include "client/events/event_text.h"
#include "libtesubpf/event_stream.h"
#include "model/process_model.h"
#include "tests/fuzz/fuzz.h"

using namespace Tesu::Bpf;

namespace {

// One line, with nothing in it that acts on a terminal.
bool IsLine(const std::string& text) {
    return text.find('\n') == text.size() - 1 && text.find("\xc2\x9b") == std::string::npos &&
           std::none_of(text.begin(), text.end() - 1,
                        [](char c) { return static_cast<unsigned char>(c) < ' ' || c == '\x7f'; });
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const std::string NAME = "/tesubpf/fuzz/" + std::to_string(getpid());
    static const int LISTENER =
        socket_local_server(NAME.c_str(), ANDROID_SOCKET_NAMESPACE_ABSTRACT, SOCK_STREAM);
    const auto stream = OpenEventStream(NAME, {RAW_EVENT_RSS_STAT});
    tesubpf_event item{};
    while (item.kind != TESUBPF_CONNECTED) {
        tesubpf_next(stream->get(), &item);
    }
    const android::base::unique_fd service(accept4(LISTENER, nullptr, nullptr, SOCK_CLOEXEC));
    TextFormatter formatter(false);
    ProcessModel model;
    int64_t now = 0;
    const auto take = [&](const void* bytes, uint32_t length) {
        const Event event = DecodeEvent(bytes, length);
        std::string line;
        formatter.append(event, now, &line);
        Require(IsLine(line) && IsLine(FormatEventJson(event, now) + "\n"));
        model.apply(event);
        model.advanceTo(now += NANOSECONDS_PER_SECOND);
    };
    take(data, static_cast<uint32_t>(size));
    int64_t received = 0;  // bytes
    ForEachPiece(data, size, [&](const char* piece, unsigned length) {
        received += length;
        send(service.get(), piece, length, MSG_NOSIGNAL | MSG_DONTWAIT);
        while (tesubpf_next(stream->get(), &item) > 0) {
            if (item.kind == TESUBPF_RECORD) {
                Require((received -= item.size) >= 0);
                take(item.data, item.size);
            }
        }
    });
    (void)model.view({});
    return 0;
}
