# SPDX-License-Identifier: Apache-2.0
find_package(GTest REQUIRED)
include(GoogleTest)

# Names the emulator to tests that start programs (support/child_process.h). It is the only variable set
# here, because gtest_discover_tests() loses all but the first of a list; the others are the presets'.
list(JOIN CMAKE_CROSSCOMPILING_EMULATOR " " TEST_EMULATOR)

# tesubpf_discover_tests(NAME [PROPERTY VALUE]...): each test of the program runs in a process of its
# own.
function(tesubpf_discover_tests name)
  set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/tests)
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 NO_PRETTY_VALUES
    PROPERTIES TIMEOUT 240 ${ARGN}
    ENVIRONMENT "TESUBPF_EMULATOR=${TEST_EMULATOR}")
endfunction()
