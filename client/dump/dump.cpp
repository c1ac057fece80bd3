// SPDX-License-Identifier: Apache-2.0
#include "client/dump/dump.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string_view>

#include "client/dump/dump_request.h"
#include "client/exit_status.h"
#include "client/text/output.h"
#include "client/text/terminal_text.h"

namespace Tesu::Bpf {

namespace {

// The text with nothing in it that would act on a terminal; its lines stay lines.
std::string EscapeLines(std::string_view text) {
    std::string escaped;
    while (!text.empty()) {
        const size_t end = std::min(text.find('\n'), text.size());
        std::string_view line = text.substr(0, end);
        if (line.ends_with('\r')) {
            line.remove_suffix(1);
        }
        escaped += EscapeForTerminal(line) + (end < text.size() ? "\n" : "");
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return escaped;
}

}  // namespace

int RunDump(const std::string& socketName, DumpSignal kind, const TerminationSignals& signals) {
    const Result<pid_t> service = FindServiceProcess(socketName);
    const auto text =
        service ? RequestDump(*service, kind, DUMP_DIR, signals) : Failure(service.error());
    if (!text || !*text) {
        if (!text) {
            std::fprintf(stderr, "tesubpf: %s\n", text.error().c_str());
        }
        return EXIT_NOT_SERVED;
    }
    const std::string& shown = isatty(STDOUT_FILENO) == 1 ? EscapeLines(**text) : **text;
    if (WriteUntilStopped(STDOUT_FILENO, shown, signals.fd()) == WriteResult::FAILED) {
        std::fprintf(stderr, "tesubpf: cannot write: %s\n", strerror(errno));
        return EXIT_FAILED;
    }
    return EXIT_OK;
}

}  // namespace Tesu::Bpf
