// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdio>
#include <cstdlib>
#include <exception>

namespace Tesu::Bpf {

// What a program's main() does: what nobody caught, as when memory has run out or a thread could
// not be created, ends it with a line and EXIT_FAILURE.
inline int RunProgram(const char* name, int (*run)(int, char**), int argc, char** argv) {
    try {
        return run(argc, argv);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s: %s\n", name, error.what());
        return EXIT_FAILURE;
    }
}

}  // namespace Tesu::Bpf
