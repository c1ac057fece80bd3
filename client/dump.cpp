// SPDX-License-Identifier: Apache-2.0
#include "client/dump.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <optional>

#include "client/batch_writer.h"
#include "client/dump_request.h"
#include "records/contract.h"

namespace Tesu::Bpf {

int RunDump(const DumpOptions& options, const TerminationSignals& signals) {
    std::string error;
    const std::optional<pid_t> service = FindServiceProcess(options.socketName, &error);
    std::optional<std::string> text;
    if (service) {
        text = RequestDump(*service, options.kind, DUMP_DIR, signals, &error);
    }
    if (!text) {
        if (!error.empty()) {
            std::fprintf(stderr, "tesubpf: %s\n", error.c_str());
        }
        return DUMP_NOT_SERVED;
    }
    BatchWriter writer(STDOUT_FILENO, signals.fd());
    writer.batch() = options.isTerminal ? EscapeDump(*text) : *text;
    if (writer.flush() == BatchWriter::Result::FAILED) {
        std::fprintf(stderr, "tesubpf: cannot write: %s\n", strerror(errno));
        return DUMP_OUTPUT_FAILED;
    }
    return DUMP_OK;
}

}  // namespace Tesu::Bpf
