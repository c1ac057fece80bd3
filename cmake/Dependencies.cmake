# SPDX-License-Identifier: Apache-2.0
#
# What the project takes from the system, as targets. Everything is a Debian package; see
# scripts/install-deps.
find_package(Threads REQUIRED)

# Android's base libraries: headers under include/android, libraries in a folder of their own that
# needs an rpath.
find_path(ANDROID_INCLUDE_DIR android-base/unique_fd.h PATH_SUFFIXES android REQUIRED)
add_library(tesubpf_platform INTERFACE)
add_library(tesubpf::platform ALIAS tesubpf_platform)
target_include_directories(tesubpf_platform SYSTEM INTERFACE ${ANDROID_INCLUDE_DIR})
foreach(library base cutils log)
  find_library(ANDROID_${library}_LIBRARY ${library}
               PATHS /usr/lib/${CMAKE_LIBRARY_ARCHITECTURE} PATH_SUFFIXES android REQUIRED)
  target_link_libraries(tesubpf_platform INTERFACE ${ANDROID_${library}_LIBRARY})
endforeach()
get_filename_component(ANDROID_LIBRARY_DIR ${ANDROID_base_LIBRARY} DIRECTORY)
list(APPEND CMAKE_BUILD_RPATH ${ANDROID_LIBRARY_DIR})
if(CMAKE_SYSROOT)
  string(REPLACE "${CMAKE_SYSROOT}" "" ANDROID_LIBRARY_DIR ${ANDROID_LIBRARY_DIR})
endif()
list(APPEND CMAKE_INSTALL_RPATH ${ANDROID_LIBRARY_DIR})

# libbpf, and of the BPF Compiler Collection only the part without LLVM.
include(${CMAKE_CURRENT_LIST_DIR}/Libbpf.cmake)
find_path(BCC_INCLUDE_DIR bcc/libbpf.h REQUIRED)
find_library(BCC_BPF_LIBRARY bcc_bpf REQUIRED)
add_library(tesubpf_bpf INTERFACE)
add_library(tesubpf::bpf ALIAS tesubpf_bpf)
target_include_directories(tesubpf_bpf SYSTEM INTERFACE ${BPF_INCLUDE_DIR} ${BCC_INCLUDE_DIR})
target_link_libraries(tesubpf_bpf INTERFACE ${BCC_BPF_LIBRARY} ${BPF_LIBRARY})

# Of the programs, not of the library.
find_package(CLI11 REQUIRED)
find_package(nlohmann_json REQUIRED)
find_package(ZLIB REQUIRED)
find_path(UTF8PROC_INCLUDE_DIR utf8proc.h REQUIRED)
find_library(UTF8PROC_LIBRARY utf8proc REQUIRED)
