// SPDX-License-Identifier: Apache-2.0
#include "tests/support/pins.h"

#include <bcc/libbpf.h>
#include <bpf/bpf.h>
#include <link.h>

#include <sstream>

#include "records/contract.h"

namespace Tesu::Bpf {

namespace {

using android::base::unique_fd;

std::string ProgramPin(PinnedRing object, const char* type, const std::string& event) {
    return std::string("prog_") + ObjectName(object) + "_" + type + "_" + event;
}

}  // namespace

const char* ObjectName(PinnedRing ring) {
    return ring == PinnedRing::CORE ? "TesuBpfDefineset" : "TesuBpfGplDefineset";
}

LoadOptions BuiltObjects() {
    return {};
}

bool LoadPins(const LoadOptions& options, std::string* messages) {
    std::ostringstream out;
    std::ostringstream err;
    const bool done = UnloadSet(options.pinDir, out, err) == LOADER_DONE &&
                      LoadSet(options, out, err) == LOADER_DONE;
    *messages = out.str() + err.str();
    return done && err.str().empty();
}

unique_fd OpenPin(const std::string& name) {
    return unique_fd(bpf_obj_get((std::string(PIN_DIR) + "/" + name).c_str()));
}

unique_fd OpenPinnedMap(PinnedRing ring, const std::string& map) {
    return OpenPin(std::string("map_") + ObjectName(ring) + "_" + map);
}

unique_fd AttachPinnedTracepoint(PinnedRing object, const std::string& event) {
    const unique_fd program = OpenPin(ProgramPin(object, "tracepoint", event));
    const size_t underscore = event.find('_');
    return unique_fd(bpf_attach_tracepoint(program.get(), event.substr(0, underscore).c_str(),
                                           event.substr(underscore + 1).c_str()));
}

unique_fd AttachPinnedToFunction(PinnedRing object, const std::string& event,
                                 const void* function) {
    const unique_fd program = OpenPin(ProgramPin(object, "kprobe", event));
    // The function's place in the program's file: its address relative to where the file begins.
    Dl_info info = {};
    if (dladdr(function, &info) == 0) {
        return {};
    }
    const uint64_t offset =
        static_cast<const char*>(function) - static_cast<const char*>(info.dli_fbase);
    return unique_fd(bpf_attach_uprobe(
        program.get(), event.starts_with("return") ? BPF_PROBE_RETURN : BPF_PROBE_ENTRY,
        (event + "_test").c_str(), "/proc/self/exe", offset, -1, 0));
}

void SetRingFlags(PinnedRing ring, uint64_t flags) {
    const uint32_t key = RING_STATUS_FLAGS;
    bpf_map_update_elem(OpenPinnedMap(ring, "ringbuf_status").get(), &key, &flags, BPF_ANY);
}

uint64_t ReadRingStatus(PinnedRing ring, uint32_t key) {
    uint64_t value = 0;
    bpf_map_lookup_elem(OpenPinnedMap(ring, "ringbuf_status").get(), &key, &value);
    return value;
}

RecordCollector::RecordCollector(PinnedRing ring)
    : mapFd(OpenPinnedMap(ring, "ringbuf_map")),
      reader(ring_buffer__new(mapFd.get(), onRecord, this, nullptr), &ring_buffer__free) {}

int RecordCollector::drain() {
    return reader != nullptr ? ring_buffer__consume(reader.get()) : -1;
}

int RecordCollector::onRecord(void* collector, void* data, size_t size) {
    static_cast<RecordCollector*>(collector)->collected.emplace_back(static_cast<char*>(data),
                                                                     size);
    return 0;
}

}  // namespace Tesu::Bpf
