# SPDX-License-Identifier: Apache-2.0
find_package(GTest REQUIRED)
include(GoogleTest)

# What the environment of a test says: no more than one variable, because gtest_discover_tests()
# loses the others of a list. The emulator is for programs that tests start (support/emulator.h).
if(TESUBPF_SANITIZE STREQUAL thread)
  set(TEST_ENVIRONMENT "TSAN_OPTIONS=halt_on_error=1")
elseif(TESUBPF_SANITIZE)
  set(TEST_ENVIRONMENT "ASAN_OPTIONS=detect_stack_use_after_return=1")
else()
  list(JOIN CMAKE_CROSSCOMPILING_EMULATOR " " TEST_EMULATOR)
  set(TEST_ENVIRONMENT "TESUBPF_EMULATOR=${TEST_EMULATOR}")
endif()

# tesubpf_discover_tests(NAME): each test of the program runs in a process of its own.
function(tesubpf_discover_tests name)
  set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/tests)
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 NO_PRETTY_VALUES
    PROPERTIES TIMEOUT 240
    ENVIRONMENT "${TEST_ENVIRONMENT}")
endfunction()
