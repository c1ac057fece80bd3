// SPDX-License-Identifier: Apache-2.0
//
// tesubpfload: loads the eBPF objects and pins them for the service.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdint>
#include <cstdio>
#include <iostream>

#include "loader/load_set.h"
#include "util/run_program.h"

namespace {

constexpr const char* FOOTER = R"(
Pins appear all together or not at all. A program that this kernel cannot take is left out, which is
reported and recorded beside the pins.

Exit status: 0 loaded, already loaded, or unloaded, also when some programs are left out; 1 failed,
and nothing is loaded; 2 wrong usage.)";

int Run(int argc, char** argv) {
    Tesu::Bpf::LoadOptions options;
    bool unload = false;
    uint64_t ringSize = 0;

    CLI::App app("Loads the eBPF programs of the task service and pins them", "tesubpfload");
    app.set_version_flag("--version", "tesubpfload " TESUBPF_VERSION);
    CLI::Option* const unloadFlag =
        app.add_flag("--unload", unload, "Remove what is pinned; detaches nothing that is in use");
    CLI::Option* const ringOption =
        app.add_option("--ring-size", ringSize,
                       "Size of both ring buffers (4M for example); a power of two and a multiple "
                       "of the page size. Default: 4 MiB for the core set, 1 MiB for the GPL set")
            ->type_name("BYTES")
            ->transform(CLI::AsSizeValue(false))
            ->excludes(unloadFlag);
    app.add_option("--rss-step", options.rssStep,
                   "Report a kind of a process's memory when it has moved by so much (64K for "
                   "example) since its last report, and with it what the other kinds moved. "
                   "Default: 0, at every change")
        ->type_name("BYTES")
        ->transform(CLI::AsSizeValue(false))
        ->excludes(unloadFlag);
    app.add_option("--pin-dir", options.pinDir, "Where to pin, in a mounted bpf file system")
        ->type_name("DIR")
        ->capture_default_str();
    app.add_flag("--verbose", options.verbose, "libbpf's log on the standard error");
    app.footer(FOOTER);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? Tesu::Bpf::LOADER_DONE : Tesu::Bpf::LOADER_USAGE;
    }
    if (ringOption->count() > 0) {
        if (const auto valid = Tesu::Bpf::CheckRingSize(ringSize, sysconf(_SC_PAGESIZE)); !valid) {
            std::fprintf(stderr, "tesubpfload: --ring-size: %s\n", valid.error().c_str());
            return Tesu::Bpf::LOADER_USAGE;
        }
        options.ringBytes = static_cast<uint32_t>(ringSize);
    }
    return unload ? Tesu::Bpf::UnloadSet(options.pinDir, std::cout, std::cerr)
                  : Tesu::Bpf::LoadSet(options, std::cout, std::cerr);
}

}  // namespace

int main(int argc, char** argv) {
    return Tesu::Bpf::RunProgram("tesubpfload", Run, argc, argv);
}
