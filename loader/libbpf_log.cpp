// SPDX-License-Identifier: Apache-2.0
#include "loader/libbpf_log.h"

#include <android-base/stringprintf.h>
#include <android-base/strings.h>

#include <cstdarg>
#include <cstdio>
#include <utility>
#include <vector>

namespace Tesu::Bpf {

namespace {

// libbpf's print function takes no context.
std::string capturedWarnings;
bool printEverything = false;

__attribute__((format(printf, 2, 0))) int Capture(libbpf_print_level level, const char* format,
                                                  va_list arguments) {
    std::string text;
    android::base::StringAppendV(&text, format, arguments);
    if (printEverything) {
        std::fputs(text.c_str(), stderr);
    }
    if (level == LIBBPF_WARN) {
        capturedWarnings += text;
    }
    return static_cast<int>(text.size());
}

// The verifier's verdict: the last line of its log before its statistics.
std::string LastVerifierLine(const std::vector<std::string>& lines) {
    std::string last;
    for (const std::string& line : lines) {
        if (line.starts_with("processed ") || line.find("-- END PROG LOAD LOG --") != line.npos) {
            break;
        }
        if (!line.empty() && line.find("-- BEGIN PROG LOAD LOG --") == line.npos) {
            last = line;
        }
    }
    return last;
}

}  // namespace

LibbpfLog::LibbpfLog(bool verbose) {
    printEverything = verbose;
    capturedWarnings.clear();
    before = libbpf_set_print(Capture);
}

LibbpfLog::~LibbpfLog() {
    libbpf_set_print(before);
}

std::string LibbpfLog::takeWarnings() {
    return std::exchange(capturedWarnings, {});
}

RefusedProgram FindRefusedProgram(std::string_view warnings) {
    constexpr std::string_view PREFIX = "libbpf: ";
    constexpr std::string_view PROGRAM = "prog '";
    constexpr std::string_view REFUSED = "': BPF program load failed: ";
    const std::vector<std::string> lines = android::base::Split(std::string(warnings), "\n");
    for (size_t i = 0; i < lines.size(); ++i) {
        std::string_view line = lines[i];
        android::base::ConsumePrefix(&line, PREFIX);
        const size_t refused = line.find(REFUSED);
        if (!android::base::ConsumePrefix(&line, PROGRAM) || refused == line.npos) {
            continue;
        }
        const size_t nameLength = refused - PROGRAM.size();
        RefusedProgram program = {.name = std::string(line.substr(0, nameLength)),
                                  .reason = std::string(line.substr(nameLength + REFUSED.size()))};
        const std::string verdict = LastVerifierLine({lines.begin() + i + 1, lines.end()});
        if (!verdict.empty()) {
            program.reason += " (" + verdict + ")";
        }
        return program;
    }
    std::string_view first = lines[0];
    android::base::ConsumePrefix(&first, PREFIX);
    return {.name = "", .reason = std::string(first)};
}

}  // namespace Tesu::Bpf
