// SPDX-License-Identifier: Apache-2.0
//
// Everything that reads text of the kernel or the host.
#include <sys/utsname.h>

#include <string>

#include "daemon/properties.h"
#include "loader/tracepoint_format.h"
#include "proc/proc_text.h"
#include "tests/fuzz/fuzz.h"

using namespace Tesu::Bpf;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::vector<char> block(data, data + size);
    const std::string_view text(block.data(), size);
    const auto stat = ParseProcStat(text);
    Require(!stat || *stat->name.end() == ')');
    (void)ParseProcStatAtBlanks(text);
    (void)ParseProcStatus(text);
    ForEachLine(text, [](std::string_view line) { (void)ParseDmabufMapping(line); });
    (void)ParseTracepointFormat(text);
    (void)ParseProperties({std::string(text)});
    // Costs more than all others together: one length in eight is enough.
    if (size <= sizeof(utsname::release) && size % 8 == 0) {
        (void)MajorMinor(std::string(text));
    }
    return 0;
}
