// SPDX-License-Identifier: Apache-2.0
#include "tests/support/record_injector.h"

#include <bpf/bpf.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>
#include <vector>

#include "bpf/kernel_layout.h"
#include "loader/kernel_atomics.h"
#include "loader/kernel_layout.h"
#include "tests/bpf/inject.h"

namespace Tesu::Bpf {

namespace {

using android::base::unique_fd;

bool UsePinned(bpf_object* object, PinnedRing ring, const char* map) {
    const unique_fd pinned = OpenPinnedMap(ring, map);
    return pinned.ok() && bpf_map__reuse_fd(bpf_object__find_map_by_name(object, map),
                                            pinned.get()) == 0;  // keeps a copy
}

int ProgramFd(const BpfObject& object, const char* name) {
    return bpf_program__fd(bpf_object__find_program_by_name(object.get(), name));
}

}  // namespace

std::unique_ptr<RecordInjector> RecordInjector::Open(PinnedRing ring, std::string* error) {
    BpfObject object(bpf_object__open_file(TESUBPF_INJECT_OBJECT, nullptr), &bpf_object__close);
    if (object == nullptr) {
        *error = std::string(TESUBPF_INJECT_OBJECT) + ": " + strerror(errno);
        return nullptr;
    }
    TesuKernelLayout layout = UnknownLayout();
    layout.hasAtomics = HasAtomics() ? 1 : 0;
    bpf_map* const constants = bpf_object__find_map_by_name(object.get(), TESU_LAYOUT_SECTION);
    if (!UsePinned(object.get(), ring, "ringbuf_map") ||
        !UsePinned(object.get(), ring, "ringbuf_current") ||
        !UsePinned(object.get(), ring, "ringbuf_status") ||
        bpf_map__set_initial_value(constants, &layout, sizeof(layout)) != 0) {
        *error = std::string("no pinned maps: ") + strerror(errno);
        return nullptr;
    }
    if (bpf_object__load(object.get()) != 0) {
        *error = strerror(errno);
        return nullptr;
    }
    return std::unique_ptr<RecordInjector>(new RecordInjector(std::move(object)));
}

RecordInjector::RecordInjector(BpfObject loaded)
    : object(std::move(loaded)),
      injectFd(ProgramFd(object, "inject")),
      addressFd(ProgramFd(object, "scratch_address")),
      recordMapFd(bpf_object__find_map_fd_by_name(object.get(), "injected_record")) {}

bool RecordInjector::setRecord(const void* record, size_t size) {
    std::vector<char> value(INJECT_MAX_BYTES);
    std::memcpy(value.data(), record, std::min(size, value.size()));
    const uint32_t key = 0;
    return bpf_map_update_elem(recordMapFd, &key, value.data(), BPF_ANY) == 0;
}

uint64_t RecordInjector::inject(const void* record, uint32_t size) {
    InjectRequest request = {
        .firstSequence = 0, .isSequence = 0, .size = size, .count = 1, .refused = 0};
    LIBBPF_OPTS(bpf_test_run_opts, options, .ctx_in = &request, .ctx_size_in = sizeof(request));
    return setRecord(record, size) && bpf_prog_test_run_opts(injectFd, &options) == 0 &&
                   options.retval == 0
               ? 1 - request.refused
               : 0;
}

RecordInjector::Result RecordInjector::injectSequence(const void* record, uint32_t size,
                                                      uint64_t firstSequence, uint64_t count) {
    Result result;
    if (!setRecord(record, size)) {
        return result;
    }
    for (uint64_t done = 0; done < count;) {
        const auto batch = static_cast<uint32_t>(std::min<uint64_t>(count - done, INJECT_BATCH));
        InjectRequest request = {.firstSequence = firstSequence + done,
                                 .isSequence = 1,
                                 .size = size,
                                 .count = batch,
                                 .refused = 0};
        LIBBPF_OPTS(bpf_test_run_opts, options, .ctx_in = &request, .ctx_size_in = sizeof(request));
        if (bpf_prog_test_run_opts(injectFd, &options) != 0 || options.retval != 0) {
            break;
        }
        result.sent += batch - request.refused;
        result.refused += request.refused;
        done += batch;
    }
    return result;
}

uint64_t RecordInjector::fillKernelMemory(const void* data, size_t size) {
    ScratchRequest request = {};
    LIBBPF_OPTS(bpf_test_run_opts, options, .ctx_in = &request, .ctx_size_in = sizeof(request));
    return setRecord(data, size) && bpf_prog_test_run_opts(addressFd, &options) == 0
               ? request.address
               : 0;
}

}  // namespace Tesu::Bpf
