// SPDX-License-Identifier: Apache-2.0
#include "loader/libbpf_log.h"

#include <android-base/stringprintf.h>
#include <android-base/strings.h>

#include <cstdarg>
#include <cstdio>
#include <string_view>
#include <utility>

namespace Tesu::Bpf {

namespace {

// libbpf's print function takes no context.
std::string firstWarning;
bool printEverything = false;

__attribute__((format(printf, 2, 0))) int Capture(libbpf_print_level level, const char* format,
                                                  va_list arguments) {
    std::string text;
    android::base::StringAppendV(&text, format, arguments);
    if (printEverything) {
        std::fputs(text.c_str(), stderr);
    }
    if (level == LIBBPF_WARN && firstWarning.empty()) {
        std::string_view line = text;
        android::base::ConsumePrefix(&line, "libbpf: ");
        firstWarning = line.substr(0, line.find('\n'));
    }
    return static_cast<int>(text.size());
}

}  // namespace

LibbpfLog::LibbpfLog(bool verbose) {
    printEverything = verbose;
    firstWarning.clear();
    before = libbpf_set_print(Capture);
}

LibbpfLog::~LibbpfLog() {
    libbpf_set_print(before);
}

std::string LibbpfLog::TakeFirstWarning() {
    return std::exchange(firstWarning, {});
}

}  // namespace Tesu::Bpf
