// SPDX-License-Identifier: Apache-2.0
#include "client/dump/dump.h"

#include <android-base/strings.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "client/dump/dump_request.h"
#include "client/exit_status.h"
#include "client/status/status_request.h"
#include "client/text/output.h"
#include "client/text/terminal_text.h"
#include "records/event_table.h"

namespace Tesu::Bpf {

namespace {

// The text with nothing in it that would act on a terminal; its lines stay lines.
std::string EscapeLines(const std::string& text) {
    std::vector<std::string> lines = android::base::Split(text, "\n");
    for (std::string& line : lines) {
        if (line.ends_with('\r')) {
            line.pop_back();
        }
        line = EscapeForTerminal(line);
    }
    return android::base::Join(lines, '\n');
}

// Where the daemon says that it writes. One that does not say writes where all did.
std::string DumpFolder(const std::string& socketName) {
    const Result<StatusReport> report = RequestStatus(socketName);
    const std::string folder = report ? std::string(FieldText(report->service.dumpFolder)) : "";
    return folder.empty() ? DUMP_DIR : folder;
}

}  // namespace

int RunDump(const std::string& socketName, DumpSignal kind, const TerminationSignals& signals) {
    const Result<pid_t> service = FindServiceProcess(socketName);
    const auto text = service ? RequestDump(*service, kind, DumpFolder(socketName), signals)
                              : Failure(service.error());
    if (!text) {
        return Fail(EXIT_NOT_SERVED, text.error());
    }
    if (!*text) {
        return EXIT_NOT_SERVED;
    }
    const std::string& shown = isatty(STDOUT_FILENO) == 1 ? EscapeLines(**text) : **text;
    if (WriteUntilStopped(STDOUT_FILENO, shown, signals.fd()) == WriteResult::FAILED) {
        return Fail(EXIT_FAILED, std::string("cannot write: ") + strerror(errno));
    }
    return EXIT_OK;
}

}  // namespace Tesu::Bpf
