// SPDX-License-Identifier: Apache-2.0
#include "service/bpf_program.h"

#include <android-base/strings.h>
#include <bcc/libbpf.h>
#include <bpf/bpf.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>
#include <utility>

#include "util/log.h"
#include "util/mutex.h"
#include "util/string_util.h"

namespace Tesu::Bpf {

namespace {

constexpr const char* PROG_PREFIX = "prog_";
constexpr const char* TRACEPOINT = "tracepoint";
constexpr const char* KPROBE = "kprobe";
// Makes the name of a kprobe event of ours unlike anybody else's.
constexpr const char* KPROBE_EVENT_SUFFIX = "_tesubpf";

struct ProgramStates {
    Mutex mutex;
    std::vector<BpfProgramState> states GUARDED_BY(mutex);
};
ProgramStates& States() {
    static auto* const STATES = new ProgramStates;  // never destroyed: a poll thread may use it
    return *STATES;
}

// What is before and after the first underscore: category and name of a tracepoint, or kind of
// kprobe and kernel function. Without one both are the whole name.
std::pair<std::string, std::string> SplitEventName(const std::string& event) {
    const size_t underscore = event.find('_');
    if (underscore == std::string::npos) {
        return {event, event};
    }
    return {event.substr(0, underscore), event.substr(underscore + 1)};
}

// One program of a driver's walk; `kind` is a type word. Counts a failure.
int AttachOne(const std::string& dir, const std::string& objName, const std::string& kind,
              const std::string& event) {
    errno = 0;
    int result = 0;
    if (kind == TRACEPOINT) {
        result = AttachTracepointProgram(dir, objName, event);
    } else if (kind == KPROBE) {
        result = AttachKProbeProgram(dir, objName, event);
    } else {
        TESU_LOGE(TESU_LOG_UTILS, "(UNKNOW TYPE) attach prog failed: %s, type: %s", objName.c_str(),
                  event.c_str());
        return 0;
    }
    const int error = errno;
    {
        MutexLock lock(States().mutex);
        States().states.push_back({.object = objName, .event = event, .isAttached = result != -1});
    }
    if (result != -1) {
        return 0;
    }
    TESU_LOGE(TESU_LOG_UTILS, "Attach %s prog failed: %s, type: %s, msg: %s", kind.c_str(),
              objName.c_str(), event.c_str(), strerror(error));
    return 1;
}

}  // namespace

std::vector<BpfProgramState> GetBpfProgramStates() {
    MutexLock lock(States().mutex);
    return States().states;
}

bool IsBpfProg(std::string& name) {
    return name.starts_with(PROG_PREFIX);
}

int RetrieveProgramFd(const std::string& dir, const std::string& name) {
    const std::string path = dir + "/" + name;
    LIBBPF_OPTS(bpf_obj_get_opts, options, .file_flags = BPF_F_RDONLY);
    return bpf_obj_get_opts(path.c_str(), &options);
}

int RetrieveProgramFd(const std::string& dir, const std::string& objName, const std::string& type,
                      const std::string& event) {
    return RetrieveProgramFd(
        dir, StringPrintf("prog_%s_%s_%s", objName.c_str(), type.c_str(), event.c_str()));
}

int AttachTracepointProgram(const std::string& dir, const std::string& objName,
                            const std::string& event) {
    int fd = RetrieveProgramFd(dir, objName, TRACEPOINT, event);
    if (fd < 0) {
        fd = RetrieveProgramFd(dir, objName);
    }
    if (fd < 0) {
        TESU_LOGE(TESU_LOG_UTILS, "[AttachTracepointProgram] Retrieve tracepoint prog failed: %s",
                  event.c_str());
        return -1;
    }
    const auto [category, name] = SplitEventName(event);
    return bpf_attach_tracepoint(fd, category.c_str(), name.c_str());
}

int AttachTracepointProgram(const std::string& dir, const std::string& progName,
                            const std::string& subSystem, const std::string& eventName) {
    const int fd = RetrieveProgramFd(dir, progName);
    if (fd < 0) {
        TESU_LOGE(TESU_LOG_UTILS,
                  "[AttachTracepointProgram] Retrieve tracepoint prog failed, subSystem: %s, "
                  "eventName: %s",
                  subSystem.c_str(), eventName.c_str());
        return -1;
    }
    return bpf_attach_tracepoint(fd, subSystem.c_str(), eventName.c_str());
}

int AttachKProbeProgram(const std::string& dir, const std::string& objName,
                        const std::string& event) {
    const int fd = RetrieveProgramFd(dir, objName, KPROBE, event);
    if (fd < 0) {
        TESU_LOGE(TESU_LOG_UTILS, "[AttachKProbeProgram] Retrieve kprobe prog failed: %s, prog: %s",
                  event.c_str(), objName.c_str());
        return -1;
    }
    const bool isEnter = event.starts_with("enter");
    if (!isEnter && !event.starts_with("return")) {
        TESU_LOGE(TESU_LOG_UTILS,
                  "[AttachKProbeProgram] (UNKNOW TYPE) kprobe prog failed: %s, prog: %s",
                  event.c_str(), objName.c_str());
        return -1;
    }
    const auto [type, function] = SplitEventName(event);
    TESU_LOGI(TESU_LOG_UTILS,
              "[AttachKProbeProgram] Attach kprobe prog: %s: eventType: %s, eventName: %s",
              isEnter ? "enter" : "return", type.c_str(), function.c_str());
    return bpf_attach_kprobe(fd, isEnter ? BPF_PROBE_ENTRY : BPF_PROBE_RETURN,
                             (event + KPROBE_EVENT_SUFFIX).c_str(), function.c_str(), 0, 0);
}

int AttachAllTesuBpfProgram(const std::string& dir, const BpfProgramTable& table) {
    int failures = 0;
    for (const auto& [objName, types] : table) {
        for (const auto& [type, events] : types) {
            const char* kind = type == BPF_ATTACH_TYPE_TRACEPOINT ? TRACEPOINT
                               : type == BPF_ATTACH_TYPE_KPROBE   ? KPROBE
                                                                  : "";
            for (const std::string& event : events) {
                TESU_LOGI(TESU_LOG_UTILS, "Attach prog START: %s, type: %s", objName.c_str(),
                          event.c_str());
                failures += AttachOne(dir, objName, kind, event);
            }
        }
    }
    return failures;
}

int AttachAllTesuBpfProgram(const std::string& dir) {
    int failures = 0;
    std::error_code error;
    std::filesystem::directory_iterator entry(dir, error);
    for (; !error && entry != std::filesystem::directory_iterator(); entry.increment(error)) {
        std::string name = entry->path().filename().string();
        if (!IsBpfProg(name)) {
            continue;
        }
        std::vector<std::string> pieces = android::base::Split(name, "_");
        if (pieces.size() < 4) {
            continue;
        }
        const std::string objName = pieces[1];
        const std::string kind = pieces[2];
        pieces.erase(pieces.begin(), pieces.begin() + 3);
        const std::string event = android::base::Join(pieces, "_");
        TESU_LOGI(TESU_LOG_UTILS, "Attach bpf prog (%s, type: %s) to %s", objName.c_str(),
                  kind.c_str(), event.c_str());
        failures += AttachOne(dir, objName, kind, event);
    }
    if (error) {
        TESU_LOGE(TESU_LOG_UTILS, "[AttachAllTesuBpfProgram] walk of %s failed: %s", dir.c_str(),
                  error.message().c_str());
    }
    return failures;
}

}  // namespace Tesu::Bpf
