// SPDX-License-Identifier: Apache-2.0
#include "loader/load_object.h"

#include <cerrno>
#include <cstring>
#include <string_view>

#include "records/raw_event.h"

namespace Tesu::Bpf {

namespace {

constexpr const char* RING_MAP = "ringbuf_map";
constexpr const char* STATUS_MAP = "ringbuf_status";

bool SetLayout(bpf_object* object, const TesuKernelLayout& layout) {
    bpf_map* map = nullptr;
    bpf_object__for_each_map(map, object) {
        if (std::string_view(bpf_map__name(map)) != TESU_LAYOUT_SECTION) {
            continue;
        }
        size_t size = 0;
        return bpf_map__initial_value(map, &size) != nullptr && size == sizeof(layout) &&
               bpf_map__set_initial_value(map, &layout, sizeof(layout)) == 0;
    }
    return false;
}

// Everything that is set on an object before it is loaded.
bool Prepare(bpf_object* object, const TesuKernelLayout& layout, const LeftOutPrograms& leftOut,
             std::optional<uint32_t> ringBytes, std::string* error) {
    bpf_map* const ring = bpf_object__find_map_by_name(object, RING_MAP);
    bpf_map* const status = bpf_object__find_map_by_name(object, STATUS_MAP);
    const int cpus = libbpf_num_possible_cpus();
    if (ring == nullptr || status == nullptr || cpus <= 0 || !SetLayout(object, layout)) {
        *error = "not an object of this version";
        return false;
    }
    bpf_map__set_max_entries(status, RING_LOST_RECORDS + cpus);
    if (ringBytes) {
        bpf_map__set_max_entries(ring, *ringBytes);
    }
    bpf_program* program = nullptr;
    bpf_object__for_each_program(program, object) {
        bpf_program__set_autoload(program, leftOut.count(bpf_program__name(program)) == 0);
    }
    return true;
}

bool AnyToLoad(const bpf_object* object) {
    bpf_program* program = nullptr;
    bpf_object__for_each_program(program, object) {
        if (bpf_program__autoload(program)) {
            return true;
        }
    }
    return false;
}

}  // namespace

BpfObject OpenObject(const std::string& path, LibbpfLog* log, std::string* error) {
    BpfObject object(bpf_object__open_file(path.c_str(), nullptr), &bpf_object__close);
    if (object == nullptr) {
        *error = path + ": " + strerror(errno);
    }
    log->takeWarnings();
    return object;
}

bool LoadObject(const std::string& path, const TesuKernelLayout& layout,
                const LeftOutPrograms& unusable, std::optional<uint32_t> ringBytes, LibbpfLog* log,
                LoadedObject* loaded, std::string* error) {
    TesuKernelLayout attempt = layout;
    loaded->leftOut = unusable;
    // Ends: each round either drops the atomics or leaves one more program out.
    for (;;) {
        // An object that failed to load cannot be loaded again.
        loaded->object = OpenObject(path, log, error);
        if (loaded->object == nullptr ||
            !Prepare(loaded->object.get(), attempt, loaded->leftOut, ringBytes, error)) {
            return false;
        }
        if (!AnyToLoad(loaded->object.get())) {
            *error = "no program can be loaded";
            return false;
        }
        if (bpf_object__load(loaded->object.get()) == 0) {
            log->takeWarnings();
            return true;
        }
        const std::string loadError = strerror(errno);
        const RefusedProgram refused = FindRefusedProgram(log->takeWarnings());
        if (refused.name.empty()) {
            *error = refused.reason.empty() ? loadError : refused.reason;
            return false;
        }
        if (attempt.hasAtomics != 0) {
            attempt.hasAtomics = 0;
            continue;
        }
        // Refused without atomics too: the program itself is at fault, the atomics may not be.
        attempt.hasAtomics = layout.hasAtomics;
        if (!loaded->leftOut.emplace(refused.name, refused.reason).second) {
            *error = "program " + refused.name + ": " + refused.reason;
            return false;
        }
    }
}

}  // namespace Tesu::Bpf
