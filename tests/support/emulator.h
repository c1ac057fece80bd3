// SPDX-License-Identifier: Apache-2.0
//
// Tests of a build for another machine run in a user-mode emulator, which the environment names. It
// translates the program, not the kernel: what /proc tells about the program is about the emulator,
// and a program that a test starts needs the emulator named again.
#pragma once

#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

// The emulator's command with its options; empty where there is none.
inline std::vector<std::string> EmulatorCommand() {
    const char* const command = std::getenv("TESUBPF_EMULATOR");
    std::istringstream words(command != nullptr ? command : "");
    std::vector<std::string> all;
    for (std::string word; words >> word;) {
        all.push_back(word);
    }
    return all;
}

// The arguments of an execvp() that starts a program: one of this build, or of the machine's own.
inline std::vector<std::string> CommandLine(const std::vector<std::string>& arguments) {
    const bool isMachines = arguments.front().starts_with("/bin/");
    std::vector<std::string> all = isMachines ? std::vector<std::string>() : EmulatorCommand();
    all.insert(all.end(), arguments.begin(), arguments.end());
    return all;
}
