// SPDX-License-Identifier: Apache-2.0
#include "loader/load_object.h"

#include <android-base/strings.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <vector>

#include "loader/atomic_or.h"
#include "records/bpf_maps.h"

namespace Tesu::Bpf {

namespace {

// An object that failed to load cannot be loaded again: it is opened anew for every attempt.
using Opener = std::function<Result<BpfObject>()>;
using ProgramFilter = std::function<bool(const std::string& name)>;

// Kernels before 6.4 fail with another error when their log does not fit. Pages that they do not
// write take no memory.
constexpr size_t VERIFIER_LOG_BYTES = 16 << 20;

// Everything that is set on an object before it is loaded, but for the choice of programs.
Result<BpfObject> Prepare(const ObjectImage& image, const TesuKernelLayout& layout,
                          std::optional<uint32_t> ringBytes) {
    const int cpus = libbpf_num_possible_cpus();
    if (cpus < 0) {
        return SystemFailure("number of CPUs");
    }
    Result<BpfObject> object = OpenObject(image);
    if (!object) {
        return object;
    }
    if (layout.hasAtomicOr == 0) {
        RemoveAtomicOrs(object->get());
    }
    bpf_map* map = nullptr;
    bpf_object__for_each_map(map, object->get()) {
        const std::string name = bpf_map__name(map);
        if (name == TESU_LAYOUT_SECTION) {
            bpf_map__set_initial_value(map, &layout, sizeof(layout));
        } else if (name == "ringbuf_status") {
            bpf_map__set_max_entries(map, RING_LOST_RECORDS + cpus);
        } else if (name == "ringbuf_map" && ringBytes) {
            bpf_map__set_max_entries(map, *ringBytes);
        } else if (name == "held_sizes" && layout.rssStep == 0) {
            bpf_map__set_max_entries(map, 1);  // not used
        }
    }
    return object;
}

// Has only these programs loaded; returns them.
std::vector<bpf_program*> Choose(const BpfObject& object, const ProgramFilter& isChosen) {
    std::vector<bpf_program*> chosen;
    bpf_program* program = nullptr;
    bpf_object__for_each_program(program, object.get()) {
        const bool isOne = isChosen(bpf_program__name(program));
        bpf_program__set_autoload(program, isOne);
        if (isOne) {
            chosen.push_back(program);
        }
    }
    return chosen;
}

// The verifier's verdict: the last line of its log before its statistics.
std::string FindVerdict(const char* log) {
    std::string verdict;
    for (const std::string& line : android::base::Split(log, "\n")) {
        if (!line.empty() && !line.starts_with("processed ")) {
            verdict = line;
        }
    }
    return verdict;
}

// Tries each program on its own and adds those to `leftOut` that the kernel refuses; none when it
// refuses the object without programs too. That memory is short says nothing of a program.
void LeaveOutRefused(const Opener& open, LeftOutPrograms* leftOut) {
    const auto maps = open();
    if (!maps) {
        return;
    }
    Choose(*maps, [](const std::string&) { return false; });
    if (bpf_object__load(maps->get()) != 0) {
        return;
    }
    const std::unique_ptr<char[]> log(new char[VERIFIER_LOG_BYTES]);
    bpf_program* each = nullptr;
    bpf_object__for_each_program(each, maps->get()) {
        const std::string name = bpf_program__name(each);
        const auto object = open();
        if (leftOut->contains(name) || !object) {
            continue;
        }
        const auto program =
            Choose(*object, [&](const std::string& other) { return other == name; });
        log[0] = '\0';  // stays so when the kernel refuses without a look at the instructions
        bpf_program__set_log_buf(program[0], log.get(), VERIFIER_LOG_BYTES);
        if (bpf_object__load(object->get()) != 0 && errno != ENOMEM) {
            std::string& reason = (*leftOut)[name] = strerror(errno);
            if (const std::string verdict = FindVerdict(log.get()); !verdict.empty()) {
                reason.append(" (").append(verdict).append(")");
            }
        }
    }
}

}  // namespace

Result<BpfObject> OpenObject(const ObjectImage& image) {
    LIBBPF_OPTS(bpf_object_open_opts, options, .object_name = image.name);
    size_t size = 0;
    const void* const bytes = image.bytes(&size);
    BpfObject object(bpf_object__open_mem(bytes, size, &options), &bpf_object__close);
    if (object == nullptr) {
        return SystemFailure(image.name);
    }
    return object;
}

Result<BpfObject> LoadObject(const ObjectImage& image, const TesuKernelLayout& layout,
                             std::optional<uint32_t> ringBytes, LeftOutPrograms* leftOut) {
    const auto open = [&] { return Prepare(image, layout, ringBytes); };
    // Ends: each further round leaves out more.
    for (;;) {
        Result<BpfObject> object = open();
        if (!object) {
            return object;
        }
        if (Choose(*object, [&](const auto& name) { return !leftOut->contains(name); }).empty()) {
            return Failure("no program can be loaded");
        }
        if (bpf_object__load(object->get()) == 0) {
            return object;
        }
        const std::string error = strerror(errno);
        const size_t before = leftOut->size();
        LeaveOutRefused(open, leftOut);
        if (leftOut->size() == before) {
            return Failure(error + "; --verbose shows libbpf's log");
        }
    }
}

}  // namespace Tesu::Bpf
