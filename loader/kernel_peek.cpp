// SPDX-License-Identifier: Apache-2.0
#include "loader/kernel_peek.h"

#include <bpf/bpf.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

namespace Tesu::Bpf {

std::unique_ptr<KernelPeek> KernelPeek::Open(const std::string& objectPath, LibbpfLog* log,
                                             std::string* error) {
    BpfObject object = OpenObject(objectPath, log, error);
    if (object == nullptr) {
        return nullptr;
    }
    if (bpf_object__load(object.get()) != 0) {
        *error = objectPath + ": " + strerror(errno);
        const RefusedProgram refused = FindRefusedProgram(log->takeWarnings());
        if (!refused.reason.empty()) {
            *error = "program " + refused.name + ": " + refused.reason;
        }
        return nullptr;
    }
    log->takeWarnings();
    return std::unique_ptr<KernelPeek>(new KernelPeek(std::move(object)));
}

KernelPeek::KernelPeek(BpfObject loaded)
    : object(std::move(loaded)),
      programFd(bpf_program__fd(bpf_object__find_program_by_name(object.get(), "task_peek"))),
      mapFd(bpf_object__find_map_fd_by_name(object.get(), "peeked_bytes")) {}

bool KernelPeek::run(TaskPeekRequest* request) const {
    LIBBPF_OPTS(bpf_test_run_opts, options, .ctx_in = request, .ctx_size_in = sizeof(*request));
    return bpf_prog_test_run_opts(programFd, &options) == 0;
}

std::vector<uint8_t> KernelPeek::bytes(const TaskPeekRequest& finished) const {
    std::vector<uint8_t> all(TASK_PEEK_BYTES);
    const uint32_t key = 0;
    if (bpf_map_lookup_elem(mapFd, &key, all.data()) != 0) {
        return {};
    }
    all.resize(std::min<size_t>(finished.bytes, all.size()));
    return all;
}

std::vector<uint8_t> KernelPeek::read(uint64_t address, uint32_t size) const {
    const uint32_t chunks = (size + TASK_PEEK_CHUNK - 1) / TASK_PEEK_CHUNK;
    TaskPeekRequest request = {
        .address = address, .bytes = chunks * TASK_PEEK_CHUNK, .pid = 0, .tid = 0, .padding = 0};
    if (!run(&request)) {
        return {};
    }
    std::vector<uint8_t> found = bytes(request);
    found.resize(std::min<size_t>(found.size(), size));
    return found;
}

}  // namespace Tesu::Bpf
